// The shared library as a client sees it: exports, SONAME, dependencies, a usable install.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "tests/support/sandbox.h"

namespace plr::test {
namespace {

const std::string kLib = std::string(BinaryDir()) + "/libpelorus.so";

// Only the C surface (PLR, NatCfg, plr families, globalConfig); nothing mangled.
TEST(Abi, ExportsOnlyTheCSurface) {
  const std::string names =
      "nm -D --defined-only " + kLib + " | awk '{sub(/@.*/, \"\", $NF); print $NF}'";
  EXPECT_EQ(test::Run(names + " | grep -qx PLR_Load"), 0) << kLib;
  EXPECT_EQ(Capture(names + " | grep -Ev '^(PLR|NatCfg|plr)|^(globalConfig|PELORUS_1)$'"), "");
}

TEST(Abi, SonameAndOnlySystemDependencies) {
  const std::string dynamic = "readelf -d " + kLib + " | grep -E ";
  EXPECT_EQ(Capture(dynamic + "SONAME | sed 's/.*\\[//; s/\\]//'"), "libpelorus.so.1\n");
  EXPECT_EQ(Capture(dynamic + "NEEDED | grep -Ev '\\[(libc|libm|libstdc\\+\\+|libgcc_s|ld-linux|"
                              "libpthread|libdl|librt|libasan|libubsan)[.-]'"),
            "");
}

// The C99 client builds and runs from a fresh install prefix with nothing but pkg-config
// (whose relocatable .pc file may name directories through "..").
TEST(Install, LibraryHeadersAndPkgConfigWorkFromAnyPrefix) {
  char tmpl[] = "/tmp/plr-install.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string prefix = tmpl;
  ASSERT_EQ(test::Run("cmake --install " + std::string(BinaryDir()) + " --prefix " + prefix +
                      " >/dev/null"),
            0);
  std::string pcDir = Capture("dirname \"$(find " + prefix + " -name pelorus.pc)\"");
  pcDir.pop_back();
  const std::string libdir = pcDir.substr(0, pcDir.rfind('/')), client = prefix + "/client";
  const std::string pkg = "PKG_CONFIG_PATH=" + pcDir + " pkg-config --cflags --libs pelorus";
  EXPECT_EQ(Capture("for w in $(" + pkg +
                    "); do case $w in -[IL]*) realpath -m \"${w#-?}\";; -l*) echo $w;; esac; done"),
            prefix + "/include\n" + libdir + "\n-lpelorus\n");
  ASSERT_EQ(test::Run("cc -std=c99 -pedantic -Werror $(nm -D " + kLib +
                      " | grep -q __asan_init && echo -fsanitize=address,undefined) " +
                      SourceDir() + "/tests/c99/client.c $(" + pkg + ") -o " + client),
            0);
  EXPECT_EQ(test::Run("LD_LIBRARY_PATH=" + libdir + " " + client + " >/dev/null"), 0);
}

}  // namespace
}  // namespace plr::test
