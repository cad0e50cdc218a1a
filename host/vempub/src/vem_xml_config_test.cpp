#include "vempub/vem_xml_config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/kit_log_capture.h"

namespace {

using zerva_test::KitLogCapture;

std::string WriteTemp(const std::string& text) {
  char path[] = "/tmp/vem_cfg_XXXXXX";
  int fd = mkstemp(path);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
  return path;
}

TEST(XmlConfigTest, ReadsItemsOfTheShippedFile) {
  CVEMXmlConfig* cfg = CVEMXmlConfig::instance();
  cfg->setPath(ZERVA_SHIPPED_DEVICE_CONFIG);
  std::string value;
  EXPECT_EQ(cfg->getDeviceItem("COMMAND", "GET_PERFORMANCE_SWITCH", value), "59594907649");
  EXPECT_EQ(value, "59594907649");
  EXPECT_EQ(cfg->getDeviceItem("COMMAND", "SET_PERFORMANCE_SWITCH", value), "59594907650");
  EXPECT_EQ(cfg->getDeviceItem("COMMAND", "GET_CUR_STATISTIC_DATA", value), "59594907664");
}

TEST(XmlConfigTest, ReturnsAReferenceToTheCallersText) {
  CVEMXmlConfig* cfg = CVEMXmlConfig::instance();
  ASSERT_TRUE(
      cfg->loadFromString("<device><section name=\"A\"><item key=\"k\" value=\"v\"/></section></device>", nullptr));
  std::string value;
  EXPECT_EQ(&cfg->getDeviceItem("A", "k", value), &value);
}

TEST(XmlConfigTest, MissingItemsGiveEmptyTextAndAreLoggedOnce) {
  KitLogCapture log;
  CVEMXmlConfig* cfg = CVEMXmlConfig::instance();
  ASSERT_TRUE(cfg->loadFromString("<device><section name=\"COMMAND\"/></device>", nullptr));
  std::string value = "stale";
  EXPECT_EQ(cfg->getDeviceItem("COMMAND", "NOPE", value), "");
  EXPECT_EQ(cfg->getDeviceItem("COMMAND", "NOPE", value), "");
  EXPECT_EQ(cfg->getDeviceItem("OTHER", "NOPE", value), "");
  auto errors = log.records(VEM_LOG_ERROR);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[0].kitNo, 1u);
  EXPECT_EQ(errors[0].message, "device configuration has no item NOPE in section COMMAND");
  EXPECT_EQ(errors[1].message, "device configuration has no item NOPE in section OTHER");
}

TEST(XmlConfigTest, AMissingFileIsLoggedOnceAndLookupsAnswerEmpty) {
  KitLogCapture log;
  CVEMXmlConfig* cfg = CVEMXmlConfig::instance();
  cfg->setPath("/nonexistent/vem-device.xml");
  std::string value;
  EXPECT_EQ(cfg->getDeviceItem("COMMAND", "GET_PERFORMANCE_SWITCH", value), "");
  EXPECT_EQ(cfg->getDeviceItem("COMMAND", "SET_PERFORMANCE_SWITCH", value), "");
  auto errors = log.records(VEM_LOG_ERROR);
  ASSERT_GE(errors.size(), 1u);
  EXPECT_EQ(errors[0].message, "cannot read device configuration /nonexistent/vem-device.xml");
  int fileErrors = 0;
  for (const auto& e : errors) fileErrors += e.message.find("cannot read") != std::string::npos;
  EXPECT_EQ(fileErrors, 1);
}

TEST(XmlConfigTest, MalformedFilesAreRefusedWithTheReason) {
  const std::string path = WriteTemp("<device><section name=\"C\"><item key=\"k\"/></section></device>");
  CVEMXmlConfig* cfg = CVEMXmlConfig::instance();
  cfg->setPath(path);
  std::string error;
  EXPECT_FALSE(cfg->load(&error));
  EXPECT_EQ(error, path + ": an <item> of section C lacks its key or value");
  const std::string broken = WriteTemp("<device><section");
  cfg->setPath(broken);
  EXPECT_FALSE(cfg->load(&error));
  EXPECT_NE(error.find(broken + ": "), std::string::npos);
  EXPECT_FALSE(cfg->loadFromString("<other/>", &error));
  EXPECT_EQ(error, "device configuration text: no <device> element");
  unlink(path.c_str());
  unlink(broken.c_str());
}

TEST(XmlConfigTest, TheEnvironmentNamesTheFileWhenNoPathIsSet) {
  const std::string path =
      WriteTemp("<device><section name=\"COMMAND\"><item key=\"X\" value=\"12\"/></section></device>");
  CVEMXmlConfig* cfg = CVEMXmlConfig::instance();
  cfg->setPath("");
  setenv("ZERVA_DEVICE_CONFIG", path.c_str(), 1);
  std::string value;
  EXPECT_EQ(cfg->getDeviceItem("COMMAND", "X", value), "12");
  unsetenv("ZERVA_DEVICE_CONFIG");
  EXPECT_EQ(cfg->path(), CVEMXmlConfig::defaultPath());
  unlink(path.c_str());
}

}  // namespace
