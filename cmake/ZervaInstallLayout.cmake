# Where `cmake --install` puts the product (GNUInstallDirs), and the same
# layout staged in the build tree.
#
#   sbin/zerva-snmp-agent, sbin/zerva-array-sim, bin/zerva-sim-ctl
#   <libdir>/zerva/        the host libraries, the service module, the dlmod library
#   <datadir>/zerva/       mibs/VEM-PERFORMANCE.xml, vem-device.xml, topologies/
#   <datadir>/snmp/mibs/   VEM-PERFORMANCE-MIB and the SMI modules it imports
#   <sysconfdir>/zerva/    zerva-snmp-agent.conf
#
# The programs find the libraries through a RUNPATH relative to $ORIGIN, and
# libvempub finds the data directory relative to itself
# (vempub/vem_install_paths.h): no installed file holds an absolute path of
# the build tree or of the install prefix.
include(GNUInstallDirs)

set(ZERVA_INSTALL_PKGLIBDIR ${CMAKE_INSTALL_LIBDIR}/zerva)
set(ZERVA_INSTALL_PKGDATADIR ${CMAKE_INSTALL_DATADIR}/zerva)
set(ZERVA_INSTALL_SNMP_MIBDIR ${CMAKE_INSTALL_DATADIR}/snmp/mibs)
set(ZERVA_INSTALL_CONFDIR ${CMAKE_INSTALL_SYSCONFDIR}/zerva)

set(_zerva_pkglib ${CMAKE_INSTALL_FULL_LIBDIR}/zerva)
set(_zerva_pkgdata ${CMAKE_INSTALL_FULL_DATADIR}/zerva)
file(RELATIVE_PATH ZERVA_LIBDIR_TO_DATADIR ${_zerva_pkglib} ${_zerva_pkgdata})
file(RELATIVE_PATH _zerva_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${_zerva_pkglib})
file(RELATIVE_PATH _zerva_sbin_to_lib ${CMAKE_INSTALL_FULL_SBINDIR} ${_zerva_pkglib})

# The staged layout: build/stage/<full install path>, so the relative paths
# above hold in the build tree too.
set(ZERVA_STAGE_DIR ${CMAKE_BINARY_DIR}/stage)
set(ZERVA_STAGE_PKGLIBDIR ${ZERVA_STAGE_DIR}${_zerva_pkglib})
set(ZERVA_STAGE_PKGDATADIR ${ZERVA_STAGE_DIR}${_zerva_pkgdata})

# zerva_stage_library(target): a library of the private directory, built
# into the staged one and installed with RUNPATH $ORIGIN.
function(zerva_stage_library target)
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${ZERVA_STAGE_PKGLIBDIR}
    INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${target} LIBRARY DESTINATION ${ZERVA_INSTALL_PKGLIBDIR} NAMELINK_SKIP)
endfunction()

# zerva_install_program(target sbin|bin): a program that finds the private
# libraries relative to its own directory.
function(zerva_install_program target dir)
  if(dir STREQUAL "sbin")
    set(rel ${_zerva_sbin_to_lib})
    set(dest ${CMAKE_INSTALL_SBINDIR})
  else()
    set(rel ${_zerva_bin_to_lib})
    set(dest ${CMAKE_INSTALL_BINDIR})
  endif()
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${rel}")
  install(TARGETS ${target} RUNTIME DESTINATION ${dest})
endfunction()

# zerva_stage_data(source relative-destination): a data file of the product,
# linked into the staged data directory and installed into the real one.
function(zerva_stage_data source dest)
  get_filename_component(dir ${ZERVA_STAGE_PKGDATADIR}/${dest} DIRECTORY)
  file(MAKE_DIRECTORY ${dir})
  file(CREATE_LINK ${source} ${ZERVA_STAGE_PKGDATADIR}/${dest} SYMBOLIC)
  get_filename_component(installdir ${ZERVA_INSTALL_PKGDATADIR}/${dest} DIRECTORY)
  get_filename_component(name ${dest} NAME)
  install(FILES ${source} DESTINATION ${installdir} RENAME ${name})
endfunction()
