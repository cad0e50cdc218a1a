// CVEMXmlConfig: the device configuration of the host, read from an XML file.
//
// The file holds named sections of key/value items:
//
//   <device>
//     <section name="COMMAND">
//       <item key="GET_PERFORMANCE_SWITCH" value="59594907649"/>
//     </section>
//   </device>
//
// The file is read on first use from the path set with setPath(), else from
// the environment variable ZERVA_DEVICE_CONFIG, else from the installed
// default. A missing or unreadable file, and each missing item, is logged on
// debug kit 1 once; lookups then answer an empty text.
#ifndef ZERVA_VEMPUB_VEM_XML_CONFIG_H_
#define ZERVA_VEMPUB_VEM_XML_CONFIG_H_

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>

class CVEMXmlConfig {
 public:
  static CVEMXmlConfig* instance();

  // Sets the file to read; the next lookup reads it.
  void setPath(const std::string& path);
  std::string path() const;

  // Reads the file now. Returns false and fills *error when it cannot be
  // read or is not a device configuration; the items read before stay.
  bool load(std::string* error);
  // Replaces the items with those of an XML text (tests, embedded defaults).
  bool loadFromString(const std::string& xml, std::string* error);

  // Stores the item's text in value and returns value; an empty text when
  // the section or key is missing.
  std::string& getDeviceItem(const std::string& section, const std::string& key, std::string& value);

  // The path used when none was set and the environment names none: the
  // product's vem-device.xml in VEMDataDir().
  static std::string defaultPath();

 private:
  CVEMXmlConfig() {}
  bool parse(const std::string& xml, const std::string& origin, std::string* error);
  void ensureLoaded();

  mutable std::mutex mu_;
  std::string path_;
  bool loaded_ = false;
  std::map<std::pair<std::string, std::string>, std::string> items_;
  std::set<std::pair<std::string, std::string>> reportedMissing_;
};

#endif  // ZERVA_VEMPUB_VEM_XML_CONFIG_H_
