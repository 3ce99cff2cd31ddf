// Checks on the built shared library as a client sees it: the exported
// symbol set, the SONAME, the runtime dependencies and the installed tree.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace plr {
namespace {

using testing::IsEmpty;

#if defined(__SANITIZE_ADDRESS__)
constexpr const char* kSanitizeFlags = " -fsanitize=address,undefined";
#else
constexpr const char* kSanitizeFlags = "";
#endif

std::string LibraryPath() {
  return std::string(test::BinaryDir()) + "/libpelorus.so";
}

std::string Trim(const std::string& s) {
  size_t begin = s.find_first_not_of(" \t\n");
  if (begin == std::string::npos) return "";
  return s.substr(begin, s.find_last_not_of(" \t\n") - begin + 1);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The canonical directories named by the `flag` options ("-I", "-L") in
// compiler flags; a relocatable .pc file may name them through "..".
std::vector<std::string> FlagDirs(const std::string& flags, const std::string& flag) {
  std::vector<std::string> dirs;
  std::istringstream in(flags);
  for (std::string word; in >> word;) {
    if (word.rfind(flag, 0) != 0) continue;
    char* real = realpath(word.c_str() + flag.size(), nullptr);
    dirs.push_back(real ? real : word);
    free(real);
  }
  return dirs;
}

bool HasPrefix(const std::string& s, const char* prefix) {
  return s.rfind(prefix, 0) == 0;
}

// The C surface: the PLR and NatCfg function families, plr globals and the
// reader's globalConfig; nothing else, and never a C++ (mangled) name.
bool IsExportedName(const std::string& name) {
  return HasPrefix(name, "PLR") || HasPrefix(name, "NatCfg") || HasPrefix(name, "plr") ||
         name == "globalConfig";
}

TEST(Abi, ExportsOnlyTheCSurface) {
  ASSERT_TRUE(test::FileExists(LibraryPath())) << LibraryPath() << " is not built";
  std::vector<std::string> foreign, mangled;
  bool sawLoad = false;
  for (const std::string& line : Lines(test::Capture("nm -D --defined-only " + LibraryPath()))) {
    std::istringstream fields(line);
    std::vector<std::string> f;
    for (std::string field; fields >> field;) f.push_back(field);
    ASSERT_GE(f.size(), 2u) << line;
    std::string name = f.back().substr(0, f.back().find('@'));  // drop the version suffix
    const std::string& type = f[f.size() - 2];
    if (type == "A" && name == "PELORUS_1") continue;  // the version node itself
    if (name == "PLR_Load") sawLoad = true;
    if (HasPrefix(name, "_Z")) mangled.push_back(name);
    if (!IsExportedName(name)) foreign.push_back(name);
  }
  EXPECT_TRUE(sawLoad) << "PLR_Load is not exported";
  EXPECT_THAT(mangled, IsEmpty());
  EXPECT_THAT(foreign, IsEmpty());
}

TEST(Abi, SonameAndRuntimeDependencies) {
  ASSERT_TRUE(test::FileExists(LibraryPath())) << LibraryPath() << " is not built";
  std::vector<std::string> sonames, thirdParty;
  for (const std::string& line : Lines(test::Capture("readelf -d " + LibraryPath()))) {
    size_t open = line.find('['), close = line.find(']');
    if (open == std::string::npos || close == std::string::npos) continue;
    std::string value = line.substr(open + 1, close - open - 1);
    if (line.find("(SONAME)") != std::string::npos) sonames.push_back(value);
    if (line.find("(NEEDED)") == std::string::npos) continue;
    bool system = false;
    for (const char* lib : {"libc.so", "libm.so", "libstdc++.so", "libgcc_s.so", "ld-linux",
                            "libpthread.so", "libdl.so", "librt.so", "libasan.so", "libubsan.so"})
      system = system || HasPrefix(value, lib);
    if (!system) thirdParty.push_back(value);
  }
  EXPECT_EQ(sonames, std::vector<std::string>{"libpelorus.so.1"});
  EXPECT_THAT(thirdParty, IsEmpty());
}

// Installs into a fresh prefix, then builds and runs a C client with nothing
// but the installed tree and pkg-config.
TEST(Install, LibraryHeadersAndPkgConfigWorkFromAnyPrefix) {
  char tmpl[] = "/tmp/plr-install.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string prefix = tmpl;
  ASSERT_EQ(test::Run("cmake --install " + std::string(test::BinaryDir()) + " --prefix " + prefix +
                      " >/dev/null"),
            0);

  const std::string pc = Trim(test::Capture("find " + prefix + " -name pelorus.pc"));
  ASSERT_FALSE(pc.empty()) << "pelorus.pc not installed";
  std::string pcDir = pc.substr(0, pc.rfind('/'));
  std::string libdir = pcDir.substr(0, pcDir.rfind('/'));
  EXPECT_TRUE(test::FileExists(libdir + "/libpelorus.so.1"));
  EXPECT_TRUE(test::FileExists(libdir + "/libpelorus.so"));
  EXPECT_TRUE(test::FileExists(prefix + "/include/pelorus.h"));
  EXPECT_TRUE(test::FileExists(prefix + "/include/pelorus/types.h"));

  const std::string pkgConfig = "PKG_CONFIG_PATH=" + pcDir + " pkg-config ";
  const std::string cflags = test::Capture(pkgConfig + "--cflags pelorus");
  const std::string libs = test::Capture(pkgConfig + "--libs pelorus");
  EXPECT_EQ(FlagDirs(cflags, "-I"), std::vector<std::string>{prefix + "/include"}) << cflags;
  EXPECT_EQ(FlagDirs(libs, "-L"), std::vector<std::string>{libdir}) << libs;
  EXPECT_THAT(libs, testing::HasSubstr("-lpelorus"));

  const std::string client = prefix + "/client";
  ASSERT_EQ(test::Run("cc -std=c99 -pedantic -Werror" + std::string(kSanitizeFlags) + " " +
                      test::SourceDir() + "/tests/c99/client.c $(" + pkgConfig +
                      "--cflags --libs pelorus) -o " + client),
            0);
  EXPECT_EQ(test::Run("LD_LIBRARY_PATH=" + libdir + " " + client + " >/dev/null"), 0);
}

}  // namespace
}  // namespace plr
