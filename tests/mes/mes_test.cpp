// The message library: prefixes, texts, the stand-in for unknown messages,
// and for every finding the integrity check prints, a text whose printf
// conversions take exactly the arguments the check passes (count and types).
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "mes.h"

namespace {

// The conversions of a printf format, one letter each: 'd' for a signed
// int, 'u' for an unsigned int (u, x, X, o), 's' for a string, '?' for
// anything else (a length modifier, a star, an unknown conversion).
std::string Conversions(const char* fmt) {
  std::string kinds;
  for (const char* p = fmt; *p != '\0'; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == '%') continue;
    while (*p != '\0' && std::strchr("-+ #0", *p) != nullptr) ++p;
    bool odd = false;
    while (*p != '\0' && (std::isdigit(static_cast<unsigned char>(*p)) || *p == '.')) ++p;
    while (*p != '\0' && std::strchr("hlLqjzt*$", *p) != nullptr) {
      odd = true;
      ++p;
    }
    char k = '?';
    if (*p == 'd' || *p == 'i') k = 'd';
    if (*p == 'u' || *p == 'x' || *p == 'X' || *p == 'o') k = 'u';
    if (*p == 's') k = 's';
    kinds += odd ? '?' : k;
    if (*p == '\0') break;
  }
  return kinds;
}

// Every message the check prints, with the arguments it passes: 'u' an
// offset, size, count or field value read from the file (32 bits,
// unsigned); 'd' an entry number, a byte count transferred, or a flag.
struct Expected {
  int number;
  const char* args;
};
constexpr Expected kFindings[] = {
    {1000, "ud"},   // location, bytes written
    {1001, "duu"},  // entry, record location, size
    {1002, "ud"},   // child offset, bytes read
    {1003, "u"},    // magic found
    {1004, "u"},    // type found
    {1005, "u"},    // root offset
    {1006, "uu"},   // record location, ParentOff
    {1007, "du"},   // entry, record location
    {1008, "du"},   // entry, offset
    {1009, "du"},   // entry, record location
    {1010, "du"},   // entry, record location
    {1011, "u"},    // record location
    {1012, "du"},   // entry, record location (a tree deeper than seven levels)
    {1013, "u"},    // header location (containers nested too deep)
    {1014, "u"},    // root offset
    {1015, "u"},    // root offset
    {1016, "ud"},   // root offset, bytes read
    {1017, "u"},    // header location
    {1018, "u"},    // header location
    {1019, "ud"},   // header location, bytes read
    {1020, "uu"},   // header location, magic
    {1021, "uu"},   // header location, type
    {1022, "u"},    // header location
    {1023, "uu"},   // data offset, header location
    {1024, "u"},    // data offset
    {1025, "u"},    // container data offset
    {1027, "u"},    // magic
    {1028, "u"},    // type
    {1029, ""},
    {1030, "u"},    // MaxItems
    {1031, "u"},    // header location
    {1034, "uu"},   // map size, shadow size
    {1035, ""},
    {1036, "uuu"},  // byte index, disk byte, shadow byte
    {1037, "uuu"},
    {1038, ""},
    {1039, "uuu"},  // record location, Used, count
    {1040, "uuu"},  // record location, EverUsed, needed
    {1041, "u"},    // header location
    {1043, "uu"},   // data offset, header location
    {1044, "dud"},  // entry, record location, the child's report
    {1045, "u"},    // file size (a creation cut short)
    {1046, ""},
    {1047, ""},
    {1048, "u"},    // header location
    {1049, "u"},    // header location
    {1050, "u"},    // header location
};
// Raised as escapes and shown by cl_DisplayError, which has no arguments.
constexpr int kEscapes[] = {1026, 1032, 1033, 1042};

TEST(MesConversions, ParserReadsFormats) {
  EXPECT_EQ(Conversions("a %u b %d c %02x %% %s"), "udus");
  EXPECT_EQ(Conversions("%lu %*d"), "??");
  EXPECT_EQ(Conversions("plain"), "");
}

TEST(MesFindings, EveryFindingHasATextTakingItsArguments) {
  for (const Expected& e : kFindings) {
    SCOPED_TRACE(e.number);
    const char* text = mes_Text(MES_GROUP_MAINT, e.number);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(Conversions(text), e.args) << text;
    EXPECT_GT(std::strlen(text), 20u) << "a text an operator can act on";
    EXPECT_EQ(std::strchr(text, '\n'), nullptr);
  }
}

TEST(MesFindings, EscapesOfTheCheckHaveTextsWithoutConversions) {
  for (int n : kEscapes) {
    SCOPED_TRACE(n);
    const char* text = mes_Text(MES_GROUP_MAINT, n);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(Conversions(text), "") << text;
  }
}

TEST(MesFindings, TextsSayWhereInTheFile) {
  // Findings about a place carry that place: every text with an argument
  // that is a location says "offset", "location", "byte" or "entry".
  for (const Expected& e : kFindings) {
    if (e.args[0] == '\0') continue;
    const std::string text = mes_Text(MES_GROUP_MAINT, e.number);
    const bool placed = text.find("offset") != std::string::npos || text.find("location") != std::string::npos ||
                        text.find("byte") != std::string::npos || text.find("entry") != std::string::npos ||
                        text.find("magic") != std::string::npos || text.find("type") != std::string::npos ||
                        text.find("slots") != std::string::npos;
    EXPECT_TRUE(placed) << e.number << ": " << text;
  }
}

TEST(MesPrefix, GroupAndNumber) {
  char buf[64];
  EXPECT_EQ(mes_GetErrMsgPrefix(204, 1036, buf, sizeof buf), 13);
  EXPECT_STREQ(buf, "SFL-204-1036:");
  EXPECT_EQ(mes_GetErrMsgPrefix(100, 28862, buf, sizeof buf), 14);
  EXPECT_STREQ(buf, "SFL-100-28862:");
  EXPECT_EQ(mes_GetErrMsgPrefix(204, 1036, buf, 5), -1);  // cut, but terminated
  EXPECT_STREQ(buf, "SFL-");
  EXPECT_EQ(mes_GetErrMsgPrefix(204, 1036, nullptr, 0), -1);
}

TEST(MesText, OwnTextsStandInAndCutting) {
  char buf[256];
  EXPECT_EQ(mes_GetAnyErMsg(204, 1026, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "short read of the file header");
  EXPECT_EQ(mes_GetAnyErMsg(100, 28862, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "not an SFL file, or wrong format version");
  EXPECT_EQ(mes_GetAnyErMsg(3, 28867, buf, sizeof buf), 0);  // table faults come in group 3
  EXPECT_STREQ(buf, "bad handle");
  EXPECT_EQ(mes_GetAnyErMsg(204, 999, buf, sizeof buf), 1);
  EXPECT_STREQ(buf, "no text for message 204/999");
  EXPECT_EQ(mes_GetAnyErMsg(2, 2, buf, sizeof buf), 0);
  EXPECT_STRNE(buf, "");
  EXPECT_EQ(mes_GetAnyErMsg(204, 1026, buf, 6), -1);
  EXPECT_STREQ(buf, "short");
  EXPECT_EQ(mes_Text(204, 999), nullptr);
  EXPECT_EQ(mes_Text(116, 380), std::string("interest service not available"));
}

}  // namespace
