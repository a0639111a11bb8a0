// The identity entry points and the banner's exact shape.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream in(text);
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

TEST(Identity, NamesAndVersion) {
  EXPECT_STREQ(__plugin_name(), "zarvel_aux");
  EXPECT_STREQ(zarvel_aux_version(), "1.4.1");
  EXPECT_TRUE(std::regex_match(zarvel_aux_revision(), std::regex("[0-9a-f]{40}")))
      << zarvel_aux_revision();
  // Static strings: the same pointers on every call.
  EXPECT_EQ(zarvel_aux_meta(), zarvel_aux_meta());
  EXPECT_EQ(zarvel_aux_revision(), zarvel_aux_revision());
}

TEST(Identity, BannerShape) {
  const std::string banner = zarvel_aux_meta();
  ASSERT_GE(banner.size(), 2u);
  EXPECT_EQ(banner.substr(banner.size() - 2), "\n\n");
  EXPECT_EQ(banner.find("\n\n\n"), std::string::npos);

  const std::vector<std::string> lines = split_lines(banner);
  ASSERT_EQ(lines.size(), 14u) << banner;
  EXPECT_EQ(lines[0], std::string("ZARVEL ") + zarvel_aux_version());
  EXPECT_FALSE(lines[1].empty());
  EXPECT_EQ(lines[2], "");
  EXPECT_EQ(lines[3], "Component    : zarvel_aux ");  // the trailing blank is part of it
  EXPECT_EQ(lines[4], std::string("Revision     : ") + zarvel_aux_revision());
  EXPECT_EQ(lines[5], "");
  EXPECT_TRUE(std::regex_match(lines[6], std::regex("System       : \\S+-\\S+"))) << lines[6];
  EXPECT_EQ(lines[7], "Architecture : AMD64");
  EXPECT_TRUE(std::regex_match(lines[8], std::regex("C Compiler   : \\S+ [0-9.]+"))) << lines[8];
  EXPECT_TRUE(std::regex_match(lines[9], std::regex("C\\+\\+ Compiler : \\S+ [0-9.]+")))
      << lines[9];
  EXPECT_TRUE(std::regex_match(lines[10], std::regex("Build Config : \\S+"))) << lines[10];
  EXPECT_EQ(lines[11], "");
  EXPECT_TRUE(std::regex_match(lines[12], std::regex("Contact      : \\S+@\\S+"))) << lines[12];
  EXPECT_EQ(lines[13], "");
}

}  // namespace
