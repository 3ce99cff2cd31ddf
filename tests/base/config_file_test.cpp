#include <errno.h>
#include <gtest/gtest.h>

#include "base/config-file.h"
#include "tests/support/sandbox.h"

namespace plr {
namespace {

constexpr const char* kConfig = "/etc/tarsis/config";

// Loads `text` as the product configuration; the error text on failure.
bool Load(const std::string& text, ConfigDictionary* dict, std::string* error) {
  test::WriteFile(kConfig, text);
  return LoadConfigFile(kConfig, dict, error);
}

TEST(ConfigFile, ReadsQuotedAndBareValuesCommentsAndBlanks) {
  ConfigDictionary dict;
  std::string error;
  ASSERT_TRUE(
      Load("# product settings\n"
           "\n"
           "   \t\n"
           "bindir = \"/usr/lib/tarsis/bin\"\n"
           "libdir=/usr/lib/tarsis   \n"
           "  name  =  \"two # words \"  # trailing comment\n"
           "bare = a b # comment\n"
           "empty = \"\"\n"
           "nothing =\n"
           "crlf = \"x\"\r\n"
           "libdir = /opt/override",
           &dict, &error))
      << error;
  EXPECT_EQ(dict, (ConfigDictionary{{"bindir", "/usr/lib/tarsis/bin"},
                                    {"libdir", "/opt/override"},
                                    {"name", "two # words "},
                                    {"bare", "a b"},
                                    {"empty", ""},
                                    {"nothing", ""},
                                    {"crlf", "x"}}));
}

TEST(ConfigFile, MalformedLineFailsNamingIt) {
  struct Case {
    const char* text;
    const char* error;
  } cases[] = {{"bindir = \"/x\"\njust text\n", "/etc/tarsis/config:2: missing \"=\""},
               {"\n\nbindir = \"/x\n", "/etc/tarsis/config:3: unterminated quote"},
               {"bindir = \"/x\" junk\n", "/etc/tarsis/config:1: text after closing quote"},
               {"= value\n", "/etc/tarsis/config:1: bad key"},
               {"two words = value\n", "/etc/tarsis/config:1: bad key"}};
  for (const Case& c : cases) {
    ConfigDictionary dict;
    std::string error;
    EXPECT_FALSE(Load(c.text, &dict, &error)) << c.text;
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST(ConfigFile, MissingFileFailsWithReason) {
  ConfigDictionary dict;
  std::string error;
  EXPECT_FALSE(LoadConfigFile("/etc/tarsis/absent", &dict, &error));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(error, "/etc/tarsis/absent: No such file or directory");
  EXPECT_TRUE(dict.empty());
}

}  // namespace
}  // namespace plr
