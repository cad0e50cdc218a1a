#include "vempub/vem_xml_config.h"

#include <pugixml.hpp>

#include <cstdlib>

#include "vempub/vem_debug_kit.h"
#include "vempub/vem_install_paths.h"

CVEMXmlConfig* CVEMXmlConfig::instance() {
  static CVEMXmlConfig* const config = new CVEMXmlConfig();  // used until exit, never destroyed
  return config;
}

std::string CVEMXmlConfig::defaultPath() { return VEMDataDir() + "/vem-device.xml"; }

void CVEMXmlConfig::setPath(const std::string& path) {
  std::lock_guard<std::mutex> lock(mu_);
  path_ = path;
  loaded_ = false;
}

std::string CVEMXmlConfig::path() const {
  std::lock_guard<std::mutex> lock(mu_);
  if (!path_.empty()) return path_;
  const char* env = std::getenv("ZERVA_DEVICE_CONFIG");
  return env != nullptr && *env != '\0' ? std::string(env) : defaultPath();
}

bool CVEMXmlConfig::parse(const std::string& xml, const std::string& origin, std::string* error) {
  pugi::xml_document doc;
  pugi::xml_parse_result parsed = doc.load_buffer(xml.data(), xml.size());
  if (!parsed) {
    *error = origin + ": " + parsed.description() + " at offset " + std::to_string(parsed.offset);
    return false;
  }
  pugi::xml_node device = doc.child("device");
  if (!device) {
    *error = origin + ": no <device> element";
    return false;
  }
  std::map<std::pair<std::string, std::string>, std::string> items;
  for (pugi::xml_node section : device.children("section")) {
    const std::string name = section.attribute("name").as_string();
    if (name.empty()) {
      *error = origin + ": a <section> has no name";
      return false;
    }
    for (pugi::xml_node item : section.children("item")) {
      if (!item.attribute("key") || !item.attribute("value")) {
        *error = origin + ": an <item> of section " + name + " lacks its key or value";
        return false;
      }
      items[{name, item.attribute("key").as_string()}] = item.attribute("value").as_string();
    }
  }
  std::lock_guard<std::mutex> lock(mu_);
  items_ = std::move(items);
  reportedMissing_.clear();
  loaded_ = true;
  return true;
}

bool CVEMXmlConfig::loadFromString(const std::string& xml, std::string* error) {
  std::string ignored;
  return parse(xml, "device configuration text", error != nullptr ? error : &ignored);
}

bool CVEMXmlConfig::load(std::string* error) {
  const std::string file = path();
  std::string ignored;
  std::string* err = error != nullptr ? error : &ignored;
  FILE* f = fopen(file.c_str(), "rbe");
  if (f == nullptr) {
    *err = "cannot read device configuration " + file;
    std::lock_guard<std::mutex> lock(mu_);
    loaded_ = true;  // do not retry on every lookup
    return false;
  }
  std::string xml;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) xml.append(buf, n);
  fclose(f);
  if (!parse(xml, file, err)) {
    std::lock_guard<std::mutex> lock(mu_);
    loaded_ = true;
    return false;
  }
  return true;
}

void CVEMXmlConfig::ensureLoaded() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (loaded_) return;
  }
  std::string error;
  if (!load(&error)) VEMLog(VEM_KIT_HOST, VEM_LOG_ERROR, "getDeviceItem", __LINE__, "%s", error.c_str());
}

std::string& CVEMXmlConfig::getDeviceItem(const std::string& section, const std::string& key, std::string& value) {
  ensureLoaded();
  std::lock_guard<std::mutex> lock(mu_);
  auto it = items_.find({section, key});
  if (it != items_.end()) {
    value = it->second;
    return value;
  }
  value.clear();
  if (reportedMissing_.insert({section, key}).second) {
    VEMLog(VEM_KIT_HOST, VEM_LOG_ERROR, "getDeviceItem", __LINE__, "device configuration has no item %s in section %s",
           key.c_str(), section.c_str());
  }
  return value;
}
