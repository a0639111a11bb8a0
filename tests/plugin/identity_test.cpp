// The identity entry points and the banner's exact shape.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

TEST(Identity, NamesVersionAndBanner) {
  EXPECT_STREQ(__plugin_name(), "zarvel_aux");
  EXPECT_STREQ(zarvel_aux_version(), "1.4.1");
  // Static strings: the same pointers on every call.
  EXPECT_EQ(zarvel_aux_meta(), zarvel_aux_meta());
  EXPECT_EQ(zarvel_aux_revision(), zarvel_aux_revision());

  const std::string banner = zarvel_aux_meta();
  ASSERT_GE(banner.size(), 2u);
  EXPECT_EQ(banner.substr(banner.size() - 2), "\n\n");
  // One pattern per line; the component line's trailing blank is part of it.
  const std::vector<std::string> patterns = {"ZARVEL 1\\.4\\.1",
                                             ".+",
                                             "",
                                             "Component    : zarvel_aux ",
                                             "Revision     : [0-9a-f]{40}",
                                             "",
                                             "System       : \\S+-\\S+",
                                             "Architecture : AMD64",
                                             "C Compiler   : \\S+ [0-9.]+",
                                             "C\\+\\+ Compiler : \\S+ [0-9.]+",
                                             "Build Config : \\S+",
                                             "",
                                             "Contact      : \\S+@\\S+",
                                             ""};
  std::vector<std::string> lines;
  std::istringstream in(banner);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), patterns.size()) << banner;
  for (size_t i = 0; i < lines.size(); ++i)
    EXPECT_TRUE(std::regex_match(lines[i], std::regex(patterns[i]))) << i << ": " << lines[i];
  EXPECT_EQ(lines[4], std::string("Revision     : ") + zarvel_aux_revision());
}
