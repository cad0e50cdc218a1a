// Where the product's installed files are, found from where libvempub itself
// was loaded. The programs and the libraries hold no absolute path of their
// own files, so an installation can be moved (cmake --install --prefix, a
// package's staging directory) and nothing points into the tree it was built
// in:
//
//   <libdir>/zerva/            VEMLibraryDir(): libvempub, libsnmpcommon,
//                              the service module, the snmpd dlmod library
//   <datadir>/zerva/           VEMDataDir(): mibs/VEM-PERFORMANCE.xml,
//                              vem-device.xml, topologies/
//
// The build tree holds the same two directories under build/stage/, so a
// program run from the build tree finds its files as an installed one does.
#ifndef ZERVA_VEMPUB_VEM_INSTALL_PATHS_H_
#define ZERVA_VEMPUB_VEM_INSTALL_PATHS_H_

#include <string>

// The directory of the libvempub this process loaded, symbolic links
// resolved; "" when the loader cannot say (never on Linux).
std::string VEMLibraryDir();

// The product's data directory: VEMLibraryDir() joined with the relative
// path from the library directory to the data directory that the build
// chose (for /usr: "../../../share/zerva").
std::string VEMDataDir();

// dir joined with relative, "." and ".." resolved by name only (the result
// need not exist): VEMJoinPath("/usr/lib/x/zerva", "../../../share/zerva")
// is "/usr/share/zerva". REQUIRES: dir is absolute.
std::string VEMJoinPath(const std::string& dir, const std::string& relative);

#endif  // ZERVA_VEMPUB_VEM_INSTALL_PATHS_H_
