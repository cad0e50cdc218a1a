# The host agent: zerva_agent_core (the SNMP mapping, module loading, back
# end and Net-SNMP glue), the zerva-snmp-agent program, the dlmod module for
# a stock snmpd, and their tests.
find_library(NETSNMP_AGENT_LIB netsnmpagent REQUIRED)
find_library(NETSNMP_MIBS_LIB netsnmpmibs REQUIRED)
find_library(NETSNMP_LIB netsnmp REQUIRED)
find_program(SNMPD_PROGRAM snmpd PATHS /usr/sbin /sbin)

set(ZERVA_AGENT_DIR ${CMAKE_CURRENT_LIST_DIR})

add_library(zerva_agent_core STATIC
  ${ZERVA_AGENT_DIR}/agent_options.cpp
  ${ZERVA_AGENT_DIR}/agent_runtime.cpp
  ${ZERVA_AGENT_DIR}/backend.cpp
  ${ZERVA_AGENT_DIR}/module_host.cpp
  ${ZERVA_AGENT_DIR}/netsnmp_bridge.cpp
  ${ZERVA_AGENT_DIR}/object_server.cpp
  ${ZERVA_AGENT_DIR}/snmp_value.cpp
)
set_target_properties(zerva_agent_core PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_include_directories(zerva_agent_core PUBLIC ${CMAKE_SOURCE_DIR})
target_compile_definitions(zerva_agent_core PRIVATE
  ZERVA_AGENT_DEFAULT_MODULE="$<TARGET_FILE:snmp_zerva_performance>"
  ZERVA_AGENT_DEFAULT_MIB_DIR="${CMAKE_SOURCE_DIR}/mibs"
  ZERVA_AGENT_DEFAULT_DEVICE_CONFIG="${CMAKE_SOURCE_DIR}/host/vempub/config/vem-device.xml")
target_link_libraries(zerva_agent_core
  PUBLIC zerva_handlers snmpcommon vempub zerva_tlv zerva_mib_description zerva_sim
         ${NETSNMP_MIBS_LIB} ${NETSNMP_AGENT_LIB} ${NETSNMP_LIB} ${CMAKE_DL_LIBS})
# The agent loads the plug-in it serves by default.
add_dependencies(zerva_agent_core snmp_zerva_performance)

add_executable(zerva-snmp-agent ${ZERVA_AGENT_DIR}/main.cpp)
target_link_libraries(zerva-snmp-agent PRIVATE zerva_agent_core)

# For snmpd.conf: dlmod zerva_snmp_dlmod /path/libzerva_snmp_dlmod.so
add_library(zerva_snmp_dlmod MODULE ${ZERVA_AGENT_DIR}/dlmod.cpp)
target_link_libraries(zerva_snmp_dlmod PRIVATE zerva_agent_core)
set_target_properties(zerva_snmp_dlmod PROPERTIES
  PREFIX "lib"
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_link_options(zerva_snmp_dlmod PRIVATE -Wl,--exclude-libs,ALL)

if(ZERVA_BUILD_TESTS)
  zerva_add_test(zerva_agent_snmp_value_test ${ZERVA_AGENT_DIR}/snmp_value_test.cpp
                 LIBS zerva_agent_core zerva_test_support)
  zerva_add_test(zerva_agent_object_server_test ${ZERVA_AGENT_DIR}/object_server_test.cpp
                 LIBS zerva_agent_core zerva_performance zerva_test_support)
  zerva_add_test(zerva_agent_options_test ${ZERVA_AGENT_DIR}/agent_options_test.cpp
                 LIBS zerva_agent_core)
  zerva_add_test(zerva_agent_module_host_test ${ZERVA_AGENT_DIR}/module_host_test.cpp
                 LIBS zerva_agent_core zerva_test_support)
  target_compile_definitions(zerva_agent_module_host_test PRIVATE
    ZERVA_PLUGIN_PATH="$<TARGET_FILE:snmp_zerva_performance>"
    ZERVA_MIB_DIR="${CMAKE_SOURCE_DIR}/mibs")

  # Whole processes on loopback: the program with the embedded simulator,
  # the Debian SNMP clients, and a stock snmpd for the AgentX and dlmod modes.
  zerva_add_test(zerva_agent_process_test ${ZERVA_AGENT_DIR}/agent_process_test.cpp LIBS zerva_agent_under_test)
  target_compile_definitions(zerva_agent_process_test PRIVATE
    ZERVA_AGENT_DLMOD="$<TARGET_FILE:zerva_snmp_dlmod>"
    ZERVA_SNMPD_PROGRAM="${SNMPD_PROGRAM}"
    ZERVA_AGENT_SANITIZED=$<BOOL:${ZERVA_SANITIZE}>)
  add_dependencies(zerva_agent_process_test zerva-snmp-agent zerva_snmp_dlmod)
endif()
