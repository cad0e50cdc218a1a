# The MIB description loader: reads and checks VEM-PERFORMANCE.xml for the
# host agent (format: docs/mib.md). Position independent so that the agent's
# dlmod module can link it.
add_library(zerva_mib_description STATIC ${CMAKE_CURRENT_LIST_DIR}/mib_description.cpp)
set_target_properties(zerva_mib_description PROPERTIES POSITION_INDEPENDENT_CODE ON)
# Included as "host/agent/mib_description.h", as the other shared headers are.
target_include_directories(zerva_mib_description PUBLIC ${CMAKE_SOURCE_DIR})
target_link_libraries(zerva_mib_description PUBLIC vempub PRIVATE PkgConfig::PUGIXML)

if(ZERVA_BUILD_TESTS)
  # The loader's own checks, and the shipped description against the
  # module's registry and the rows its handlers produce.
  zerva_add_test(mib_description_test ${CMAKE_CURRENT_LIST_DIR}/mib_description_test.cpp
                 LIBS zerva_mib_description zerva_module zerva_test_support)
  target_compile_definitions(mib_description_test PRIVATE
    ZERVA_SHIPPED_MIB_XML="${CMAKE_SOURCE_DIR}/mibs/VEM-PERFORMANCE.xml")
endif()
