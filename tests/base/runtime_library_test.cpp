// The run-time library loader: candidates in order, missing files skipped,
// a library the caller refuses closed and passed over, each place logged once.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>

#include "base/RuntimeLibrary.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

TEST(RuntimeLibraryTest, TakesTheFirstUsableCandidateResolvesItsSymbolsAndPassesOverRefusals) {
  // The C maths library, which every C++ program here is linked with.
  Dl_info libm{};
  ASSERT_NE(::dladdr(::dlsym(RTLD_DEFAULT, "cos"), &libm), 0);
  const std::string real = libm.dli_fname;
  test::TempDir dir;
  const std::string missing = (dir.path() / "libnothing.so").string();
  const std::string notALibrary = (dir.path() / "libtext.so").string();
  std::ofstream(notALibrary) << "not an ELF file";

  test::LogCapture log;
  auto lib = RuntimeLibrary::loadFirst("Test", {missing, notALibrary, real}, [](RuntimeLibrary& l) {
    return l.symbol("cos") != nullptr;
  });
  ASSERT_TRUE(lib);
  EXPECT_EQ(lib->path(), real);
  auto cosine = lib->function<double (*)(double)>("cos");
  ASSERT_NE(cosine, nullptr);
  EXPECT_EQ(cosine(0.0), 1.0);
  EXPECT_EQ(lib->symbol("no_such_symbol_here"), nullptr);

  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "[Test] Looked for " + missing + ": not there");
  EXPECT_EQ(lines[1].rfind("[Test] Looked for " + notALibrary + ": cannot be opened (", 0), 0u) << lines[1];
  EXPECT_EQ(lines[2], "[Test] Looked for " + real + ": loaded");

  // A second search over the same places says nothing new.
  log.clear();
  EXPECT_TRUE(RuntimeLibrary::loadFirst("Test", {missing, notALibrary, real}));
  EXPECT_TRUE(log.lines().empty());

  // A library the caller refuses is closed and passed over, every time.
  int asked = 0;
  EXPECT_FALSE(RuntimeLibrary::loadFirst("Refusing", {real, real}, [&](RuntimeLibrary&) {
    ++asked;
    return false;
  }));
  EXPECT_EQ(asked, 2);
  EXPECT_TRUE(log.has("[Refusing] Looked for " + real + ": not usable"));
  EXPECT_FALSE(RuntimeLibrary::open("/no/such/library.so").reason.empty());  // a library that opened has none
}

}  // namespace
}  // namespace velmora
