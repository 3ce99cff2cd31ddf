// The base utilities: number conversion, the configuration and line readers,
// SHA-1, atomic file replacement and the random source.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/chain-table.h"
#include "base/config-file.h"
#include "base/fd-util.h"
#include "base/file-lock.h"
#include "base/fs-util.h"
#include "base/line-reader.h"
#include "base/random-util.h"
#include "base/sha1.h"
#include "base/short-text.h"
#include "base/str-util.h"
#include "base/sys-util.h"
#include "base/text-table.h"
#include "tests/support/sandbox.h"

namespace plr {
namespace {

TEST(StrTo, AcceptsDecimalHexAndSignStrictly) {
  for (auto [text, value] : {std::pair{"0", 0LL},
                             {"-42", -42LL},
                             {"+7", 7LL},
                             {"0X1F", 31LL},
                             {"-0x10", -16LL},
                             {"2147483647", INT32_MAX + 0LL},
                             {"-2147483648", INT32_MIN + 0LL},
                             {"4294967295", UINT32_MAX + 0LL},
                             {"0xFFFFFFFF", UINT32_MAX + 0LL}}) {
    int32_t i = 12345;
    uint32_t u = 12345;
    bool fitsInt = value <= INT32_MAX, fitsUint = value >= 0 && *text != '+';
    EXPECT_EQ(StrToInt32(text, &i), fitsInt) << text;
    EXPECT_EQ(i, fitsInt ? value : 12345) << text;
    EXPECT_EQ(StrToUint32(text, &u), fitsUint) << text;
    EXPECT_EQ(u, fitsUint ? value : 12345) << text;
  }
  for (const char* text : {"4294967296", "0x100000000", "", "-", "0x", " 5", "5 ", "0x1g", "--1",
                           "99999999999999999999", "-2147483649"}) {
    int32_t i = 1;
    uint32_t u = 1;
    EXPECT_FALSE(StrToInt32(text, &i) || StrToUint32(text, &u) || i != 1 || u != 1) << text;
  }
  int32_t i;
  EXPECT_FALSE(StrToInt32(nullptr, &i));
  const std::string x(5000, 'x');
  EXPECT_EQ(StrPrintf("<%s>%d", x.c_str(), 8), "<" + x + ">8");
}

TEST(FormatDecimal, AgreesWithToStringAtEveryLength) {
  std::vector<uint32_t> values = {0u, 4294967295u, 4294967294u};
  for (uint32_t power = 1; power <= 1000000000u; power *= 10) {
    for (uint32_t v : {power - 1, power, power + 1, power * 5 + 7}) values.push_back(v);
    if (power == 1000000000u) break;
  }
  for (uint32_t v : values) {
    char buf[12];
    memset(buf, '#', sizeof buf);
    char* end = FormatDecimal(buf, v);
    EXPECT_EQ(std::string(buf, end), std::to_string(v));
    EXPECT_EQ(*end, '#') << v << ": nothing written past the end";
  }
}

TEST(ConfigFile, ReadsValuesAndNamesTheBadLine) {
  const struct {
    const char* text;
    const char* result;  // the dictionary as "key=value;" in key order, or the error
  } kRows[] = {{"# c\n\n \t\nbindir = \"/usr/lib/x\"\nlib=/a   \n  name  =  \"two # w \"  # c\n"
                "bare = a b # c\nempty = \"\"\nnothing =\ncrlf = \"x\"\r\nlib = /b",
                "bare=a b;bindir=/usr/lib/x;crlf=x;empty=;lib=/b;name=two # w ;nothing=;"},
               {"bindir = \"/x\"\njust text\n", "/etc/tarsis/config:2: missing \"=\""},
               {"\n\nbindir = \"/x\n", "/etc/tarsis/config:3: unterminated quote"},
               {"bindir = \"/x\" junk\n", "/etc/tarsis/config:1: text after closing quote"},
               {"two words = value\n", "/etc/tarsis/config:1: bad key"}};
  for (const auto& r : kRows) {
    test::WriteFile("/etc/tarsis/config", r.text);
    ConfigDictionary dict;
    std::string error, got;
    if (LoadConfigFile("/etc/tarsis/config", &dict, &error)) {
      for (const auto& [key, value] : std::map<std::string, std::string>(dict.begin(), dict.end()))
        got += key + "=" + value + ";";
    } else {
      got = error;
      EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(got, r.result);
  }
}

TEST(LineReader, SplitsAndCutsLines) {
  const std::string a(1023, 'a'), c(1023, 'c');
  const struct {
    std::string text;
    size_t max;
    std::vector<std::string> lines;
  } kRows[] = {{"\n", 1024, {""}},
               {"a\nb", 1024, {"a", "b"}},
               {"a\r\nb\r\n", 1024, {"a\r", "b\r"}},
               {std::string("x\0y\n", 4), 1024, {std::string("x\0y", 3)}},
               {a + "\nn\n", 1024, {a, "n"}},
               {c + "cc\nn", 1024, {c, "n"}},
               {"abcdef\ngh\n", 4, {"abc", "gh"}},
               // Lines across the reader's 64 KiB blocks: cut, kept whole,
               // a newline as the last byte of a block, a multi-MB line.
               {std::string(70000, 'x') + "\nn\n", 1024, {std::string(1023, 'x'), "n"}},
               {std::string(70000, 'y') + "\nn", 80000, {std::string(70000, 'y'), "n"}},
               {std::string(65535, 'z') + "\nq\n", 65536, {std::string(65535, 'z'), "q"}},
               {std::string(65530, 'p') + "\nacross-the-edge\nz",
                1024,
                {std::string(1023, 'p'), "across-the-edge", "z"}},
               {std::string(65530, 'p') + "\nacross-the-edge\n", 8, {"ppppppp", "across-"}},
               {std::string(5 << 20, 'm') + "\n\nend", 16, {std::string(15, 'm'), "", "end"}}};
  for (const auto& r : kRows) {
    test::WriteFile("/tmp/lines", r.text);
    UniqueFile f(fopen("/tmp/lines", "r"));
    LineReader reader(f.get(), r.max);
    std::vector<std::string> lines;
    std::string_view line;
    LineReader::Status status;
    while ((status = reader.Next(&line)) == LineReader::Status::kLine) lines.emplace_back(line);
    EXPECT_EQ(status, LineReader::Status::kEof);
    EXPECT_EQ(lines, r.lines) << r.text.substr(0, 20) << " (" << r.text.size() << " bytes)";
  }
  UniqueFile dir(fopen("/tmp", "r"));  // reading a directory fails with EISDIR
  std::string_view line;
  EXPECT_EQ(LineReader(dir.get()).Next(&line), LineReader::Status::kError);
  EXPECT_EQ(errno, EISDIR);
}

// The lock file stays open between locks; one removed or replaced meanwhile
// is not locked in vain: the owner that comes back locks the file now at the
// path, so it still excludes an owner that opened that file.
TEST(FileLock, RelockingFollowsALockFileRemovedOrReplaced) {
  const char* kPath = "/tmp/locked";
  FileLock first, second;
  ASSERT_TRUE(first.Lock(kPath, 0));
  EXPECT_FALSE(second.Lock(kPath, 0));
  EXPECT_EQ(errno, 0) << "a timeout, not an error";
  ASSERT_TRUE(first.Unlock());
  ASSERT_TRUE(second.Lock(kPath, 0));
  EXPECT_FALSE(first.Lock(kPath, 0));
  ASSERT_TRUE(second.Unlock());
  for (const char* change : {"remove", "replace"}) {
    SCOPED_TRACE(change);
    ASSERT_TRUE(first.Lock(kPath, 0));
    ASSERT_TRUE(first.Unlock());
    if (std::string(change) == "remove") {
      ASSERT_EQ(unlink("/tmp/locked.lck"), 0);
    } else {
      test::WriteFile("/tmp/new.lck", "");
      ASSERT_EQ(rename("/tmp/new.lck", "/tmp/locked.lck"), 0);
    }
    FileLock third;  // opens the file now at the path
    ASSERT_TRUE(third.Lock(kPath, 0));
    EXPECT_FALSE(first.Lock(kPath, 0)) << "locked the old file, which excludes nobody";
    ASSERT_TRUE(third.Unlock());
    ASSERT_TRUE(first.Lock(kPath, 0));
    EXPECT_FALSE(third.Lock(kPath, 0));
    ASSERT_TRUE(first.Unlock());
  }
  ASSERT_TRUE(first.Lock("/tmp/other", 0));  // another path: another file
  EXPECT_FALSE(second.Lock("/tmp/other", 0));
  EXPECT_TRUE(second.Lock(kPath, 0));
}

// A lock file that cannot be opened is no lock; the mark is set and cleared
// only under the lock, and a mark that cannot be written says so.
TEST(FileLock, FailuresToOpenOrMarkAreReported) {
  const char* kPath = "/tmp/marked";
  FileLock lock;
  sys::FailNth(sys::Op::kOpen, 1, EACCES);
  errno = 0;
  EXPECT_FALSE(lock.Lock(kPath, 0));
  EXPECT_EQ(errno, EACCES);
  EXPECT_FALSE(lock.held());
  sys::ClearFaults();
  EXPECT_FALSE(lock.SetMarked(true)) << "not held";
  EXPECT_EQ(errno, ENOLCK);
  ASSERT_TRUE(lock.Lock(kPath, 0));
  EXPECT_FALSE(lock.foundMarked());
  ASSERT_TRUE(lock.SetMarked(true));
  EXPECT_EQ(test::ReadFile("/tmp/marked.lck").size(), 1u);
  sys::FailNth(sys::Op::kFtruncate, 1, EIO);
  EXPECT_FALSE(lock.SetMarked(false));
  sys::ClearFaults();
  ASSERT_TRUE(lock.Unlock());
  FileLock next;
  ASSERT_TRUE(next.Lock(kPath, 0));
  EXPECT_TRUE(next.foundMarked()) << "the failed clear left the mark";
  ASSERT_TRUE(next.SetMarked(false));
  EXPECT_EQ(test::ReadFile("/tmp/marked.lck"), "");
}

// Random puts, replacements and erases against a std::map: every step's
// lookups agree, iteration yields exactly the model, and a value's text
// stays readable at its address until the table goes.
TEST(TextTable, AgreesWithAMapAndKeepsTextsInPlace) {
  TextTable<int> table;
  std::map<std::string, std::string> model;
  std::vector<std::pair<const char*, std::string>> handedOut;
  unsigned seed = 1;
  auto next = [&] { return seed = seed * 1103515245u + 12345u, (seed >> 8) & 0xffffu; };
  for (int step = 0; step < 20000; ++step) {
    const unsigned r = next();
    // Keys of 0 to 40 bytes, so whole words, tails and empty keys all occur.
    const std::string key = std::string(r % 41, 'k') + std::to_string(r % 97);
    if (next() % 3 == 0) {
      EXPECT_EQ(table.Erase(key), model.erase(key) == 1) << key;
    } else {
      const std::string value = "v" + std::to_string(next());
      auto [entry, inserted] = table.Put(key, value);
      EXPECT_EQ(inserted, model.count(key) == 0) << key;
      EXPECT_EQ(entry->value(), value);
      if (inserted) entry->extra = static_cast<int>(key.size());
      model[key] = value;
      handedOut.emplace_back(entry->c_value(), value);
    }
    const auto* found = table.Find(key);
    ASSERT_EQ(found != nullptr, model.count(key) == 1) << key;
    if (found != nullptr) {
      EXPECT_EQ(found->extra, static_cast<int>(key.size()));
    }
  }
  ASSERT_EQ(table.size(), model.size());
  std::map<std::string, std::string> walked;
  for (const auto& entry : table) walked.emplace(entry.key(), entry.value());
  EXPECT_EQ(walked, model);
  for (const auto& [key, value] : model) {
    const auto* entry = table.Find(key);
    ASSERT_NE(entry, nullptr) << key;
    EXPECT_EQ(entry->value(), value);
  }
  for (const auto& [text, value] : handedOut) ASSERT_STREQ(text, value.c_str());
  EXPECT_EQ(table.Find("absent"), nullptr);
  EXPECT_FALSE(table.Erase("absent"));
}

// Random inserts and erases (by key and by position) applied to a chain
// table and to the standard map with the same hash: after every step the
// two hold the same entries in the same order, which is the order files are
// generated in. Small integer keys and text keys with full 64-bit hashes go
// through bucket counts up to a few thousand.
template <class Key, class Hash, class MakeKey>
void ExpectSameOrderAsTheStandardMap(MakeKey makeKey) {
  ChainTable<Key, int, Hash> table;
  std::unordered_map<Key, int, Hash, std::equal_to<>> model;
  unsigned seed = 7;
  auto next = [&] { return seed = seed * 1103515245u + 12345u, (seed >> 8) & 0xffffu; };
  for (int step = 0; step < 12000; ++step) {
    // Grow for most of the run, then shrink, so erases meet every shape.
    const bool growing = step < 8000;
    const Key key = makeKey(next() % 3000);
    const unsigned action = next() % 10;
    if (action < (growing ? 6u : 2u)) {
      auto [it, inserted] = table.try_emplace(key, step);
      auto [modelIt, modelInserted] = model.try_emplace(key, step);
      ASSERT_EQ(inserted, modelInserted);
      EXPECT_EQ(it->second, modelIt->second);
    } else if (action < 8) {
      ASSERT_EQ(table.erase(key), model.erase(key));
    } else {
      auto it = table.find(key);
      auto modelIt = model.find(key);
      ASSERT_EQ(it == table.end(), modelIt == model.end());
      if (it != table.end()) {
        EXPECT_EQ(table.at(key), modelIt->second);
        table.erase(it);
        model.erase(modelIt);
      }
    }
    ASSERT_EQ(table.size(), model.size());
    if (step % 97 != 0 && step < 11900) continue;  // the order, now and then and at the end
    auto modelIt = model.begin();
    for (const auto& [k, v] : table) {
      ASSERT_TRUE(k == modelIt->first) << "step " << step;
      ASSERT_EQ(v, modelIt->second);
      ++modelIt;
    }
  }
  EXPECT_EQ(table.find(makeKey(99999)), table.end());
  EXPECT_THROW(table.at(makeKey(99999)), std::out_of_range);
}

struct TextKeyHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};

TEST(ChainTable, IteratesInTheStandardMapsOrder) {
  ExpectSameOrderAsTheStandardMap<uint16_t, std::hash<uint16_t>>(
      [](unsigned n) { return static_cast<uint16_t>(n * 37); });
  ExpectSameOrderAsTheStandardMap<std::string, TextKeyHash>(
      [](unsigned n) { return "02:00:00:" + std::to_string(n); });
  ChainTable<std::string, int, TextKeyHash> table;
  table.try_emplace(std::string("key"), 1);
  EXPECT_EQ(table.find(std::string_view("key"))->second, 1);  // looked up by a view
}

// A value whose construction throws leaves the table as it was, and the
// room taken for it serves the next insert.
TEST(ChainTable, AThrowingInsertLeavesTheTableAsItWas) {
  struct Value {
    explicit Value(int v) : v(v) {
      if (v < 0) throw std::runtime_error("refused");
    }
    int v;
  };
  ChainTable<uint16_t, Value, std::hash<uint16_t>> table;
  auto order = [&] {
    std::string out;
    for (const auto& [k, value] : table)
      out += std::to_string(k) + "=" + std::to_string(value.v) + " ";
    return out;
  };
  for (uint16_t k = 0; k < 40; ++k) table.try_emplace(k, k * 2);
  const std::string before = order();
  for (uint16_t k = 100; k < 140; ++k) EXPECT_THROW(table.try_emplace(k, -1), std::runtime_error);
  EXPECT_EQ(table.size(), 40u);
  EXPECT_EQ(order(), before);
  EXPECT_EQ(table.find(uint16_t{100}), table.end());
  for (uint16_t k = 100; k < 140; ++k) EXPECT_TRUE(table.try_emplace(k, 1).second);
  EXPECT_EQ(table.size(), 80u);
}

// Every length either side of what fits inline: the text reads back with
// its NUL through every way of making, copying, moving and replacing it,
// and the object keeps a long text on the heap only.
TEST(ShortText, KeepsEveryLengthWithItsTerminator) {
  auto text = [](size_t n) {
    std::string t;
    for (size_t i = 0; i < n; ++i) t += static_cast<char>('a' + i % 26);
    return t;
  };
  auto expectHolds = [](const ShortText& s, const std::string& want) {
    EXPECT_EQ(s.view(), want);
    EXPECT_EQ(s.size(), want.size());
    EXPECT_EQ(s.empty(), want.empty());
    EXPECT_EQ(strlen(s.c_str()), want.size()) << "ends with its NUL";
    EXPECT_EQ(s.onHeap(), want.size() > 15);
  };
  for (size_t n : {0u, 1u, 7u, 14u, 15u, 16u, 17u, 127u, 1023u}) {
    SCOPED_TRACE(n);
    const std::string want = text(n);
    ShortText made(want);
    expectHolds(made, want);
    ShortText copy(made);
    expectHolds(copy, want);
    EXPECT_TRUE(copy == made);
    ShortText moved(std::move(copy));
    expectHolds(moved, want);
    expectHolds(copy, "");                   // NOLINT: a moved-from text is empty
    for (size_t m : {0u, 15u, 16u, 200u}) {  // replaced by shorter and longer texts
      ShortText replaced(text(m));
      replaced = made;
      expectHolds(replaced, want);
      replaced.assign(text(m));
      expectHolds(replaced, text(m));
      replaced = std::move(moved);
      expectHolds(replaced, want);
      moved = replaced;
    }
    expectHolds(moved, want);
  }
  ShortText same("a text longer than fifteen");
  same = same;
  EXPECT_EQ(same.view(), "a text longer than fifteen");
  EXPECT_TRUE(ShortText("10.0.0.1") == std::string_view("10.0.0.1"));
  EXPECT_FALSE(ShortText("10.0.0.1") == ShortText("10.0.0.10"));
}

// Published vectors and sizes around the padding boundaries (a tail of 55
// bytes still takes the length, 56 needs another block), fed in every
// chunking, through the CPU's SHA instructions (where it has them) and
// through the portable rounds.
TEST(Sha1, VectorsInAnyChunking) {
  ScopeExit restore([] { Sha1UseCpuInstructions(true); });
  for (bool cpu : {true, false}) {
    Sha1UseCpuInstructions(cpu);
    const struct {
      std::string data;
      const char* hex;
    } kRows[] = {{"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
                 {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
                 {std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
                 {std::string(56, 'a'), "c2db330f6083854c99d4b5bfb6e8f29f201be699"},
                 {std::string(64, 'a'), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
                 {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}};
    for (const auto& r : kRows) {
      EXPECT_EQ(Sha1Hex(r.data), r.hex) << r.data.size();
      for (size_t chunk : {1, 7, 63, 64, 65, 1000}) {
        if (r.data.size() > 100000 && chunk < 1000) continue;
        Sha1 sha;
        for (size_t at = 0; at < r.data.size(); at += chunk)
          sha.Update(r.data.data() + at, std::min(chunk, r.data.size() - at));
        sha.Update(nullptr, 0);
        EXPECT_EQ(DigestHex(sha.Final()), r.hex)
            << r.data.size() << " in " << chunk << " cpu " << cpu;
      }
    }
  }
}

// Both ways agree on every length around the block size and on a large
// buffer of varied bytes.
TEST(Sha1, CpuInstructionsAgreeWithPortableRounds) {
  ScopeExit restore([] { Sha1UseCpuInstructions(true); });
  std::string data(3 << 20, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u) >> 13);
  for (size_t size : {size_t{0}, size_t{1}, size_t{63}, size_t{64}, size_t{65}, size_t{127},
                      size_t{128}, size_t{129}, size_t{4096 + 17}, data.size()}) {
    Sha1UseCpuInstructions(true);
    const std::string cpu = Sha1Hex(std::string_view(data).substr(0, size));
    Sha1UseCpuInstructions(false);
    EXPECT_EQ(Sha1Hex(std::string_view(data).substr(0, size)), cpu) << size;
  }
}

// A hash told to expect a text gives the stream's own digest however the
// stream departs from the text (at once, inside a piece, in a later piece,
// by ending early or by going on), and the given digest only for a stream
// that repeats the whole text: handing it a wrong digest shows that case is
// the one that skips the hashing.
TEST(Sha1, ExpectedRepeatIsComparedNotHashed) {
  std::string text(5000, '\0');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>((i * 40503u) >> 7);
  Sha1 whole;
  whole.Update(text.data(), text.size());
  const Sha1::Digest digest = whole.Final();
  Sha1::Digest wrong = digest;
  wrong[0] ^= 1;
  auto changedAt = [&](size_t at) {
    std::string s = text;
    s[at] ^= 0x40;
    return s;
  };
  const struct {
    const char* what;
    std::string stream;
  } kRows[] = {{"the text", text},
               {"differs in the first byte", changedAt(0)},
               {"differs inside the second piece", changedAt(1500)},
               {"differs in the last byte", changedAt(text.size() - 1)},
               {"ends early", text.substr(0, 3000)},
               {"goes on", text + "more"},
               {"empty", ""}};
  for (const auto& r : kRows) {
    for (size_t piece : {size_t{1000}, size_t{64}, size_t{7}}) {
      Sha1 sha;
      sha.ExpectRepeatOf(text, wrong);
      for (size_t at = 0; at < r.stream.size(); at += piece)
        sha.Update(r.stream.data() + at, std::min(piece, r.stream.size() - at));
      const Sha1::Digest got = sha.Final();
      if (r.stream == text) {
        EXPECT_EQ(got, wrong) << r.what << " in pieces of " << piece;
      } else {
        EXPECT_EQ(DigestHex(got), Sha1Hex(r.stream)) << r.what << " in pieces of " << piece;
      }
    }
  }
}

// The names in a directory.
std::set<std::string> Entries(const char* path) {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(path)) names.insert(e.path().filename());
  return names;
}

// The fault-injecting write of the call table, chained under short writes so
// that large contents take several write calls.
ssize_t (*gInjectingWrite)(int, const void*, size_t);
ssize_t ShortWrite(int fd, const void* buf, size_t n) {
  return gInjectingWrite(fd, buf, n < 4096 ? n : 4096);
}

TEST(ReplaceFile, ReplacesWithExactModeOrKeepsTheOldFileOnAnyFault) {
  ASSERT_EQ(mkdir("/tmp/r", 0755), 0);
  const char* kFile = "/tmp/r/networking";
  const std::string data(100000, 'n');
  const struct {
    sys::Op op;
    unsigned nth;
  } kFaults[] = {{sys::Op::kOpen, 1},  {sys::Op::kWrite, 1},  {sys::Op::kWrite, 2},
                 {sys::Op::kFsync, 1}, {sys::Op::kRename, 1}, {sys::Op::kFsync, 2}};
  for (const auto& f : kFaults) {
    test::WriteFile(kFile, "old\n", 0640);
    gInjectingWrite = sys::calls().write;
    sys::calls().write = ShortWrite;
    sys::FailNth(f.op, f.nth, EIO);
    errno = 0;
    EXPECT_FALSE(ReplaceFileAtomically(kFile, data, 0644));
    EXPECT_EQ(errno, EIO);
    sys::ResetCalls();
    sys::ClearFaults();
    bool replaced = f.op == sys::Op::kFsync && f.nth == 2;  // the directory sync comes last
    EXPECT_TRUE(test::ReadFile(kFile) == (replaced ? data : "old\n")) << static_cast<int>(f.op);
    EXPECT_EQ(Entries("/tmp/r"), std::set<std::string>{"networking"});
  }
  umask(022);
  ASSERT_TRUE(ReplaceFileAtomically(kFile, data, 0664));
  struct stat st = {};
  ASSERT_EQ(stat(kFile, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0664u) << "the mode is exact, not masked";
  EXPECT_TRUE(test::ReadFile(kFile) == data);
  ASSERT_EQ(chdir("/tmp/r"), 0);
  ASSERT_TRUE(ReplaceFileAtomically("networking", "", 0600));  // a relative path
  FileBytes out;
  ASSERT_TRUE(ReadWholeFile(kFile, &out));
  EXPECT_EQ(out.size(), 0u);
  EXPECT_FALSE(ReadWholeFile("/tmp/absent", &out));
  // A file whose size fstat does not tell is read to its end all the same.
  ASSERT_TRUE(ReadWholeFile("/proc/self/status", &out));
  EXPECT_EQ(out.view().substr(0, 5), "Name:");
  EXPECT_NE(out.view().find("\nPid:"), std::string_view::npos);
  // An interrupted read is retried; a failed one fails the whole read.
  test::WriteFile(kFile, data);
  sys::FailNth(sys::Op::kRead, 1, EINTR);
  EXPECT_TRUE(ReadWholeFile(kFile, &out) && out.view() == data);
  sys::FailNth(sys::Op::kRead, 2, EIO);
  errno = 0;
  EXPECT_FALSE(ReadWholeFile(kFile, &out));
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(out.size(), 0u) << "a failed read leaves nothing behind";
  sys::ClearFaults();
  EXPECT_EQ(Entries("/tmp/r"), std::set<std::string>{"networking"});
}

TEST(SpillBuffer, WritesInOrderAndHashesExactlyTheMarkedPart) {
  // Items of several sizes, so that spills fall before, on and after the
  // mark; the middle part alone goes through the hash.
  for (size_t item : {1u, 7u, 4096u, 70000u}) {
    test::WriteFile("/tmp/spill", "");
    UniqueFd fd(::open("/tmp/spill", O_WRONLY | O_TRUNC | O_CLOEXEC));
    ASSERT_TRUE(fd);
    SpillBuffer out(fd.get());
    std::string head(100, 'h'), middle, tail(5000, 't');
    out.text() += head;
    Sha1 sha;
    out.HashFromHere(&sha);
    for (int i = 0; middle.size() < 3 * SpillBuffer::kSpillMark; ++i) {
      std::string piece(item, static_cast<char>('a' + i % 26));
      middle += piece;
      out.text() += piece;
      out.MaybeSpill();
      EXPECT_LT(out.text().size(), SpillBuffer::kSpillMark + item) << item;
    }
    out.HashFromHere(nullptr);
    out.text() += tail;
    ASSERT_TRUE(out.Flush()) << item;
    EXPECT_EQ(DigestHex(sha.Final()), Sha1Hex(middle)) << item;
    EXPECT_TRUE(test::ReadFile("/tmp/spill") == head + middle + tail) << item;
  }
  // A failed write sticks: nothing later is written and Flush reports it.
  UniqueFd fd(::open("/tmp/spill", O_WRONLY | O_TRUNC | O_CLOEXEC));
  SpillBuffer out(fd.get());
  sys::FailNth(sys::Op::kWrite, 1, ENOSPC);
  out.text().assign(SpillBuffer::kSpillMark, 'x');
  out.MaybeSpill();
  sys::ClearFaults();
  out.text() += "more";
  errno = 0;
  EXPECT_FALSE(out.Flush());
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(test::ReadFile("/tmp/spill"), "");
  EXPECT_EQ(DigestHex(Sha1().Final(), HexCase::kUpper), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
}

TEST(CryptoRandom, FillsLargeBuffersCompletely) {
  // Above the kernel's per-call limit; zeros in the last kilobyte are a 2^-8192 event.
  std::string a(40 << 20, '\0');
  ASSERT_TRUE(CryptoRandom(a.data(), a.size()));
  EXPECT_NE(a.substr(a.size() - 1024), std::string(1024, '\0'));
  EXPECT_NE(a.substr(0, 1024), a.substr(1024, 1024));
}

}  // namespace
}  // namespace plr
