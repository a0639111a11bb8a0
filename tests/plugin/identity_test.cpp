// The identity entry points and the banner's exact shape.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <regex>
#include <string>

TEST(Identity, NamesVersionAndBanner) {
  EXPECT_STREQ(__plugin_name(), "zarvel_aux");
  EXPECT_STREQ(zarvel_aux_version(), "1.4.1");
  // Static strings: the same pointers on every call.
  EXPECT_EQ(zarvel_aux_meta(), zarvel_aux_meta());
  EXPECT_EQ(zarvel_aux_revision(), zarvel_aux_revision());
  const std::string revision = zarvel_aux_revision();
  EXPECT_TRUE(std::regex_match(revision, std::regex("[0-9a-f]{40}"))) << revision;
  // Line by line; the component line's trailing blank is part of it.
  const std::regex banner(
      "ZARVEL 1\\.4\\.1\n.+\n\nComponent    : zarvel_aux \nRevision     : " + revision +
      "\n\nSystem       : \\S+-\\S+\nArchitecture : AMD64\n"
      "C Compiler   : \\S+ [0-9.]+\nC\\+\\+ Compiler : \\S+ [0-9.]+\n"
      "Build Config : \\S+\n\nContact      : \\S+@\\S+\n\n");
  EXPECT_TRUE(std::regex_match(std::string(zarvel_aux_meta()), banner)) << zarvel_aux_meta();
}
