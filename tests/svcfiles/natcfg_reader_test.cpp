// The nat.conf reader: sections, items, quoting and escapes, comments,
// duplicate sections, long lines, and the unset or missing file.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "pelorus.h"
#include "tests/support/sandbox.h"

namespace plr {
namespace {

constexpr const char* kPath = "/tmp/reader-nat.conf";

struct Listed {
  std::string key, value, comment;
  bool operator==(const Listed&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Listed& l) {
  return os << "{" << l.key << "|" << l.value << "|" << l.comment << "}";
}

class NatCfgReader : public ::testing::Test {
 protected:
  void TearDown() override { globalConfig = nullptr; }
  void Use(const std::string& text) {
    test::WriteFile(kPath, text);
    globalConfig = kPath;
  }
  static std::vector<std::string> Sections() {
    std::vector<std::string> names;
    NatCfgIterator* iter = NatCfgListSectionsInit();
    if (iter == nullptr) return {"NULL"};
    while (char* name = NatCfgListSections(iter)) {
      names.push_back(name);
      free(name);
    }
    EXPECT_EQ(NatCfgListSections(iter), nullptr);  // stays at its end
    NatCfgListSectionsDestroy(iter);
    return names;
  }
  static std::vector<Listed> Items(const char* section) {
    std::vector<Listed> items;
    NatCfgIterator* iter = NatCfgListItemsInit(section);
    if (iter == nullptr) return {{"NULL", "", ""}};
    char* value = nullptr;
    char* comment = nullptr;
    while (char* key = NatCfgListItems(iter, &value, &comment)) {
      items.push_back({key, value, comment});
      free(key);
      free(value);
      free(comment);
    }
    NatCfgListItemsDestroy(iter);
    return items;
  }
  static std::string Get(const char* section, const char* key) {
    char* value = NatCfgGetItem(section, key);
    if (value == nullptr) return "NULL";
    std::string copy = value;
    free(value);
    return copy;
  }
};

TEST_F(NatCfgReader, WithoutAFileEveryCallComesBackEmpty) {
  ASSERT_EQ(globalConfig, nullptr);
  EXPECT_EQ(NatCfgListSectionsInit(), nullptr);
  EXPECT_EQ(NatCfgListItemsInit("host"), nullptr);
  EXPECT_EQ(NatCfgGetItem("host", "ip"), nullptr);
  EXPECT_EQ(NatCfgGetItemLong("udp", "timeout", 77), 77u);
  globalConfig = "/tmp/no-such-nat.conf";
  EXPECT_EQ(NatCfgListSectionsInit(), nullptr);
  EXPECT_EQ(NatCfgGetItem("host", "ip"), nullptr);
  EXPECT_EQ(NatCfgGetItemLong("udp", "timeout", 77), 77u);
  // Calls on no iterator are harmless.
  EXPECT_EQ(NatCfgListSections(nullptr), nullptr);
  EXPECT_EQ(NatCfgListItems(nullptr, nullptr, nullptr), nullptr);
  NatCfgListItemsDestroy(nullptr);
}

TEST_F(NatCfgReader, SectionHeadersAndTheirNames) {
  Use("# top comment\n"
      "  [host]  trailing\n"
      "ip = 1.2.3.4\n"
      "[no closing bracket\n"
      "[]\n"
      "[Mixed Case]x]\n"
      "\t\n"
      "key = [not a header]\n"
      "[udp]");
  EXPECT_EQ(Sections(), (std::vector<std::string>{"host", "", "Mixed Case", "udp"}));
  // Matching a header ignores case but not blanks or longer names.
  Use("[ host]\nip = 1.1.1.1\n[hostx]\nip = 2.2.2.2\n[HOST]\nip = 3.3.3.3\n");
  EXPECT_EQ(Get("host", "ip"), "3.3.3.3");
  EXPECT_EQ(Items("host"), (std::vector<Listed>{{"ip", "3.3.3.3", ""}}));
  EXPECT_EQ(Items("hos"), (std::vector<Listed>{{"NULL", "", ""}}));
  EXPECT_EQ(NatCfgListItemsInit("nosuch"), nullptr);
}

TEST_F(NatCfgReader, BothSeparatorsAndKeyCaseAnswerTheSameKey) {
  Use("[Host]\nIP:192.168.8.2\nip = 192.168.8.3\n");
  EXPECT_EQ(Get("host", "ip"), "192.168.8.2");
  EXPECT_EQ(Get("HOST", "Ip"), "192.168.8.2");
  EXPECT_EQ(Items("host"),
            (std::vector<Listed>{{"IP", "192.168.8.2", ""}, {"ip", "192.168.8.3", ""}}));
}

TEST_F(NatCfgReader, KeysEndAtTheFirstSeparatorAndLoseTrailingBlanks) {
  Use("[incomingtcp]\n"
      "8080 = 192.168.8.128:80\n"
      "  spaced key \t = v\n"
      "ipx = 9\n"
      "ip \t = 7\n");
  EXPECT_EQ(Items("incomingtcp"), (std::vector<Listed>{{"8080", "192.168.8.128:80", ""},
                                                       {"spaced key", "v", ""},
                                                       {"ipx", "9", ""},
                                                       {"ip", "7", ""}}));
  EXPECT_EQ(Get("incomingtcp", "8080"), "192.168.8.128:80");
  EXPECT_EQ(Get("incomingtcp", "ip"), "7");  // "ipx" is another key
}

TEST_F(NatCfgReader, QuotedValuesAndEscapes) {
  Use("[q]\n"
      "single = 'a b'\n"
      "double = \"c  d\" # after\n"
      "bare = a b\n"
      "esc = \"tab\\there\\nnl\\rcr\\\\bs\\\"q\\x\"\n"
      "open = \"runs to the end\n"
      "empty =\n"
      "blank =    \n"
      "cut = abc\\\n"
      "mixed = it's\n");
  std::vector<Listed> items = Items("q");
  ASSERT_EQ(items.size(), 9u);
  EXPECT_EQ(items[0], (Listed{"single", "a b", ""}));
  EXPECT_EQ(items[1], (Listed{"double", "c  d", "after"}));
  EXPECT_EQ(items[2], (Listed{"bare", "a", ""}));
  EXPECT_EQ(items[3], (Listed{"esc", "tab\there\nnl\rcr\\bs\"qx", ""}));
  EXPECT_EQ(items[4], (Listed{"open", "runs to the end", ""}));
  EXPECT_EQ(items[5], (Listed{"empty", "", ""}));
  EXPECT_EQ(items[6], (Listed{"blank", "", ""}));
  EXPECT_EQ(items[7], (Listed{"cut", "abc", ""}));
  EXPECT_EQ(items[8], (Listed{"mixed", "it's", ""}));
  EXPECT_EQ(Get("q", "esc"), "tab\there\nnl\rcr\\bs\"qx");
  EXPECT_EQ(Get("q", "empty"), "");
  EXPECT_EQ(NatCfgGetItemLong("q", "empty", 5), 0u);  // empty converts to 0
}

TEST_F(NatCfgReader, CarriageReturnsEndListedValuesButNotLookedUpQuotedOnes) {
  Use("[crlf]\r\nplain = 60\r\nquoted = \"x\ry\"\r\n");
  EXPECT_EQ(Items("crlf"), (std::vector<Listed>{{"plain", "60", ""}, {"quoted", "x", ""}}));
  EXPECT_EQ(Get("crlf", "plain"), "60");
  EXPECT_EQ(Get("crlf", "quoted"), "x\ry");
  EXPECT_EQ(NatCfgGetItemLong("crlf", "plain", 1), 60u);
}

TEST_F(NatCfgReader, CommentsFollowTheValueAndNonItemsAreSkipped) {
  // Lines that are no items are skipped.
  Use("[udp]\n"
      "timeout = 60 # seconds\n"
      "# comment = 1\n= orphan value\n: other orphan\n   \t  \n\r\nno separator here\n"
      "a = b c #   spaced comment\r\n"
      "hash = x#y\n"
      "none = 5\n");
  EXPECT_EQ(Items("udp"), (std::vector<Listed>{{"timeout", "60", "seconds"},
                                               {"a", "b", "spaced comment"},
                                               {"hash", "x#y", ""},
                                               {"none", "5", ""}}));
  EXPECT_EQ(Get("udp", "timeout"), "60");
  EXPECT_EQ(NatCfgGetItemLong("udp", "timeout", 0), 60u);
  // Null out-pointers are allowed.
  NatCfgIterator* iter = NatCfgListItemsInit("udp");
  ASSERT_NE(iter, nullptr);
  char* key = NatCfgListItems(iter, nullptr, nullptr);
  ASSERT_NE(key, nullptr);
  EXPECT_STREQ(key, "timeout");
  free(key);
  NatCfgListItemsDestroy(iter);
}

TEST_F(NatCfgReader, DuplicateSectionsAreSearchedInFileOrder) {
  Use("[udp]\ntimeout = 10\n[tcp]\nlate = 1\n[UDP]\nextra = 20\ntimeout = 30\n");
  EXPECT_EQ(Get("udp", "timeout"), "10");
  EXPECT_EQ(Get("udp", "extra"), "20");
  EXPECT_EQ(Get("udp", "late"), "NULL");
  EXPECT_EQ(Sections(), (std::vector<std::string>{"udp", "tcp", "UDP"}));
  // Listing items covers the first section of the name only.
  EXPECT_EQ(Items("udp"), (std::vector<Listed>{{"timeout", "10", ""}}));
  // Sections end at the next header, indented or not, or the end of the file.
  Use("[a]\nx = 1\n[b]\ny = 2\n   [c]\nz = 3");
  EXPECT_EQ(Items("b"), (std::vector<Listed>{{"y", "2", ""}}));
  EXPECT_EQ(Items("c"), (std::vector<Listed>{{"z", "3", ""}}));
  EXPECT_EQ(Get("a", "y"), "NULL");
}

TEST_F(NatCfgReader, NumbersMustBeWhole) {
  Use("[n]\nok = 42\nbad = 12x\nneg = -1\nhuge = 99999999999999999999999\n");
  EXPECT_EQ(NatCfgGetItemLong("n", "ok", 7), 42u);
  EXPECT_EQ(NatCfgGetItemLong("n", "bad", 7), 7u);
  EXPECT_EQ(NatCfgGetItemLong("n", "missing", 7), 7u);
  EXPECT_EQ(NatCfgGetItemLong("n", "neg", 7), static_cast<unsigned long>(-1));
  EXPECT_EQ(NatCfgGetItemLong("n", "huge", 7), static_cast<unsigned long>(-1));  // saturates
}

TEST_F(NatCfgReader, LongLinesArriveInPiecesOf16382Characters) {
  const std::string longValue(20000, 'v');
  const std::string filler(16382, 'x');
  Use("[long]\n"
      "key = " +
      longValue + "\n" + filler +
      "hidden = 1\n"
      "after = 2\n");
  std::vector<Listed> items = Items("long");
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items[0].key, "key");
  EXPECT_EQ(items[0].value, std::string(16382 - 6, 'v'));
  EXPECT_EQ(items[1], (Listed{"hidden", "1", ""}));  // the second piece of a long line
  EXPECT_EQ(items[2], (Listed{"after", "2", ""}));
  EXPECT_EQ(Get("long", "after"), "2");
  EXPECT_EQ(Get("long", "hidden"), "1");
}

TEST_F(NatCfgReader, IteratorsKeepTheirOwnPositions) {
  Use("[a]\n1 = one\n2 = two\n[b]\n3 = three\n");
  NatCfgIterator* first = NatCfgListItemsInit("a");
  NatCfgIterator* second = NatCfgListItemsInit("a");
  NatCfgIterator* sections = NatCfgListSectionsInit();
  ASSERT_TRUE(first && second && sections);
  auto next = [](NatCfgIterator* iter) {
    char* key = NatCfgListItems(iter, nullptr, nullptr);
    std::string text = key ? key : "NULL";
    free(key);
    return text;
  };
  EXPECT_EQ(next(first), "1");
  EXPECT_EQ(next(first), "2");
  EXPECT_EQ(next(second), "1");
  char* name = NatCfgListSections(sections);
  EXPECT_STREQ(name, "a");
  free(name);
  EXPECT_EQ(next(first), "NULL");
  EXPECT_EQ(next(first), "NULL");
  EXPECT_EQ(next(second), "2");
  NatCfgListItemsDestroy(first);
  NatCfgListItemsDestroy(second);
  NatCfgListSectionsDestroy(sections);
}

TEST_F(NatCfgReader, FileChangedUnderAnIteratorIsStillReadSafely) {
  Use("[a]\nk1 = v1\nk2 = v2\nk3 = v3\n");
  NatCfgIterator* iter = NatCfgListItemsInit("a");
  ASSERT_NE(iter, nullptr);
  char* key = NatCfgListItems(iter, nullptr, nullptr);
  free(key);
  // Truncated behind the reader's back: the saved position lies past the end.
  // What is still buffered may be returned; nothing beyond it, no crash.
  ASSERT_EQ(truncate(kPath, 0), 0);
  int returned = 0;
  while (char* next = NatCfgListItems(iter, nullptr, nullptr)) {
    EXPECT_TRUE(strcmp(next, "k2") == 0 || strcmp(next, "k3") == 0) << next;
    free(next);
    ASSERT_LT(++returned, 3);
  }
  NatCfgListItemsDestroy(iter);
}

}  // namespace
}  // namespace plr
