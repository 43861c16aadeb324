#include "common/PropertyList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "platform/PosixFileSystem.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;

Value parsed(std::string_view bytes) {
  const Result<Value> value = parsePropertyList(bytes);
  if (!value) {
    ADD_FAILURE() << value.error().description();
    return Value("failed");
  }
  return value.value();
}

std::string written(const Value& value) {
  const Result<std::string> bytes = serializePropertyList(value);
  return bytes ? bytes.value() : "failed: " + bytes.error().description();
}

std::string refusal(std::string_view bytes) {
  const Result<Value> value = parsePropertyList(bytes);
  return value ? "accepted" : value.error().description();
}

std::string inList(const std::string& content) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + content + "\n</plist>\n";
}

std::vector<std::string> keysOf(const Value& value) {
  std::vector<std::string> keys;
  for (const auto& [key, item] : *value.asDictionary()) keys.push_back(key);
  return keys;
}

Value everyKind() {
  return Value(Dictionary{{"zeta", "text <&>\"' \t\n\r end"},
                          {"alpha", std::int64_t{-5}},
                          {"most", std::numeric_limits<std::int64_t>::max()},
                          {"least", std::numeric_limits<std::int64_t>::min()},
                          {"real", 0.1},
                          {"yes", true},
                          {"no", false},
                          {"data", Data{"\0\xff\x01 bytes"s}},
                          {"empty data", Data{}},
                          {"date", Date{1795226427LL * 1000000}},
                          {"array", Array{Value("a"), Value(1), Value(Array{}), Value(Dictionary{})}},
                          {"dict", Dictionary{{"<key> & \xc3\xa9", "\xf0\x9f\x98\x80"}, {"", ""}}},
                          {"empty", ""}});
}

// --- XML ---

TEST(PropertyListXml, ReadsEveryKindOfValue) {
  const Value value = parsed(inList(
      "<dict><key>s</key><string> a &lt;<![CDATA[&]]>&#65; </string><key>i</key><integer> -12 </integer>"
      "<key>p</key><integer>+7</integer><key>h</key><integer>-0x1F</integer><key>r</key><real>+1.5e3</real>"
      "<key>t</key><true/><key>f</key><false></false><key>d</key><date>2026-11-21T02:00:27Z</date>"
      "<key>b</key><data>\n\tAP8B\n\tIA==\n</data><key>a</key><array><string/></array><!-- c "
      "--><?p?></dict>"));
  const Dictionary& dictionary = *value.asDictionary();
  EXPECT_EQ(*dictionary.stringFor("s"), " a <&A ");
  EXPECT_EQ(*dictionary.find("i")->asInteger(), -12);
  EXPECT_EQ(*dictionary.find("p")->asInteger(), 7);
  EXPECT_EQ(*dictionary.find("h")->asInteger(), -31);
  EXPECT_EQ(*dictionary.find("r")->asReal(), 1500.0);
  EXPECT_EQ(*dictionary.find("t")->asBoolean(), true);
  EXPECT_EQ(*dictionary.find("f")->asBoolean(), false);
  EXPECT_EQ(dictionary.find("d")->asDate()->microsecondsSince1970, 1795226427LL * 1000000);
  EXPECT_EQ(dictionary.find("b")->asData()->bytes, "\0\xff\x01 "s);
  EXPECT_EQ(*dictionary.arrayFor("a"), Array{Value("")});
  EXPECT_THAT(keysOf(value), ElementsAre("s", "i", "p", "h", "r", "t", "f", "d", "b", "a"));
}

TEST(PropertyListXml, TakesTheDeclarationsThatPropertyListsUsuallyBegin) {
  const std::string own = written(Value("x"));
  EXPECT_THAT(own, HasSubstr("<!DOCTYPE plist "));
  EXPECT_EQ(parsed(own), Value("x"));
  EXPECT_EQ(parsed("<!DOCTYPE plist SYSTEM 'file:///dev/null/x.dtd'><plist><string>x</string></plist>"),
            Value("x"));
  EXPECT_EQ(parsed("\xef\xbb\xbf<plist><true/></plist>"), Value(true));
}

TEST(PropertyListXml, DatesRoundTripAcrossTheCalendar) {
  for (const std::string text : {"0001-01-01T00:00:00Z", "0999-12-31T23:59:59Z", "1900-02-28T23:59:59Z",
                                 "1970-01-01T00:00:00Z", "2000-02-29T12:00:00Z", "2026-11-21T02:00:27Z",
                                 "2069-01-19T03:14:08Z", "4001-01-01T00:00:00Z", "9999-12-31T23:59:59Z"}) {
    const Value value = parsed(inList("<date>" + text + "</date>"));
    ASSERT_TRUE(value.asDate()) << text;
    EXPECT_THAT(written(value), HasSubstr("<date>" + text + "</date>"));
  }
  EXPECT_EQ(parsed(inList("<date>1970-01-01T00:00:01Z</date>")).asDate()->microsecondsSince1970, 1000000);
  EXPECT_EQ(parsed(written(Value("<date>1-01-01"))), Value("<date>1-01-01"));
  // XML lists have whole seconds; a fraction is cut off towards the past.
  EXPECT_THAT(written(Value(Date{-1})), HasSubstr("<date>1969-12-31T23:59:59Z</date>"));
  EXPECT_THAT(written(Value(Date{1999999})), HasSubstr("<date>1970-01-01T00:00:01Z</date>"));
}

TEST(PropertyListXml, EveryKindOfValueRoundTripsInOrder) {
  const Value value = everyKind();
  const Value again = parsed(written(value));
  EXPECT_EQ(again, value);
  EXPECT_EQ(keysOf(again), keysOf(value));
  EXPECT_EQ(written(again), written(value));
  EXPECT_TRUE(again.asDictionary()->find("alpha")->asInteger());
  EXPECT_TRUE(again.asDictionary()->find("real")->asReal());
  EXPECT_TRUE(again.asDictionary()->find("yes")->asBoolean());
}

TEST(PropertyListXml, RealsRoundTripToTheLastBit) {
  std::mt19937_64 random(20261121);
  std::vector<double> numbers{0.0,    3.0,      1.0 / 3,  1e300, 5e-324, std::numeric_limits<double>::max(),
                              -1e-10, HUGE_VAL, -HUGE_VAL};
  while (numbers.size() < 2000) {
    const auto number = std::bit_cast<double>(random());
    if (std::isfinite(number)) numbers.push_back(number);
  }
  for (const double number : numbers) {
    const Value again = parsed(written(Value(number)));
    ASSERT_TRUE(again.asReal()) << number;
    EXPECT_EQ(*again.asReal(), number);
  }
}

TEST(PropertyListXml, DataRoundTripsAtEveryLength) {
  std::string bytes;
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(parsed(written(Value(Data{bytes}))), Value(Data{bytes}));
    bytes += static_cast<char>(i * 37);
  }
}

TEST(PropertyListXml, ManyKeysKeepTheirOrder) {
  Dictionary dictionary;
  for (int i = 0; i < 3000; ++i) dictionary.set("key " + std::to_string((i * 7919) % 3000), Value(i));
  const Value again = parsed(written(Value(dictionary)));
  EXPECT_EQ(keysOf(again), keysOf(Value(dictionary)));
}

// What the library reads of our lists is what we wrote.
TEST(PropertyListXml, TheLibraryReadsWhatIsWritten) {
  const std::string bytes = written(everyKind());
  plist_t list = nullptr;
  plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &list);
  ASSERT_TRUE(list);
  char* text = nullptr;
  plist_get_string_val(plist_dict_get_item(list, "zeta"), &text);
  EXPECT_STREQ(text, "text <&>\"' \t\n\r end");
  std::free(text);
  EXPECT_EQ(plist_dict_get_size(list), 13U);
  plist_free(list);
}

std::string nestedArrays(std::size_t levels) {
  std::string open;
  std::string close;
  for (std::size_t i = 0; i < levels; ++i) open += "<array>", close += "</array>";
  return open + close;
}

TEST(PropertyListXml, RefusesWhatIsNoPropertyList) {
  struct Case {
    std::string bytes;
    const char* reason;
  };
  const std::vector<Case> cases = {
      {"", "no element found"},
      {"hello", "syntax error"},
      {"{ \"json\": 1 }", "not well-formed"},
      {"<plist>", "no element found"},
      {"<plist></plist>", "line 1: no value"},
      {"<dict/>", "the root element is not \"plist\""},
      {"<plist><plist><true/></plist></plist>", "unknown element \"plist\""},
      {inList("<true/><true/>"), "more than one value at the top level"},
      {inList("<unknown/>"), "line 3: unknown element \"unknown\""},
      {inList("text"), "text outside a value"},
      {inList("<dict>text</dict>"), "text outside a value"},
      {inList("<string>a<b/></string>"), "an element inside a scalar"},
      {inList("<true>x</true>"), "not a well-formed true"},
      {inList("<key>k</key>"), "a key outside a dictionary"},
      {inList("<array><key>k</key></array>"), "a key outside a dictionary"},
      {inList("<dict><string>v</string></dict>"), "a value without a key"},
      {inList("<dict><array/></dict>"), "a value without a key"},
      {inList("<dict><key>k</key></dict>"), "a key without a value"},
      {inList("<dict><key>k</key><key>l</key><true/></dict>"), "a key without a value"},
      {inList("<dict><key>k</key><true/><key>k</key><true/></dict>"), "the key \"k\" twice"},
      {inList("<integer></integer>"), "not a well-formed integer"},
      {inList("<integer>1.5</integer>"), "not a well-formed integer"},
      {inList("<integer>--1</integer>"), "not a well-formed integer"},
      {inList("<integer>9223372036854775808</integer>"), "not a well-formed integer"},
      {inList("<integer>-9223372036854775809</integer>"), "not a well-formed integer"},
      {inList("<integer>18446744073709551616</integer>"), "not a well-formed integer"},
      {inList("<real>x</real>"), "not a well-formed real"},
      {inList("<real>1,5</real>"), "not a well-formed real"},
      {inList("<real>1e999</real>"), "not a well-formed real"},
      {inList("<date>2026-11-21</date>"), "not a well-formed date"},
      {inList("<date>2026-02-29T00:00:00Z</date>"), "not a well-formed date"},
      {inList("<date>2026-01-01T24:00:00Z</date>"), "not a well-formed date"},
      {inList("<date>2026-01-01T00:60:00Z</date>"), "not a well-formed date"},
      {inList("<date>2026-01-01T00:00:60Z</date>"), "not a well-formed date"},
      {inList("<date>0000-01-01T00:00:00Z</date>"), "not a well-formed date"},
      {inList("<date>2026-01-01T00:00:00+</date>"), "not a well-formed date"},
      {inList("<data>A</data>"), "not a well-formed data"},
      {inList("<data>AA</data>"), "not a well-formed data"},
      {inList("<data>AB==</data>"), "not a well-formed data"},
      {inList("<data>AA=A</data>"), "not a well-formed data"},
      {inList("<data>AAAA=</data>"), "not a well-formed data"},
      {inList("<data>A*==</data>"), "not a well-formed data"},
      {inList("<string>\x01</string>"), "not well-formed"},
      {inList("<string>\xff</string>"), "not well-formed"},
      // A reference to another object of an archive.
      {inList("<dict><key>k</key><uid>1</uid></dict>"), "unknown element \"uid\""},
      {"<!DOCTYPE html><plist><true/></plist>", "a document type other than"},
      {"<!DOCTYPE plist [<!ENTITY a 'x'>]><plist><string>&a;</string></plist>", "a document type other than"},
      {"<!DOCTYPE plist [<!ENTITY f SYSTEM 'file:///etc/passwd'>]><plist><string>&f;</string></plist>",
       "a document type other than"},
      {inList("<string>&undeclared;</string>"), "undefined entity"},
      {inList(nestedArrays(65)), "nested deeper than 64 levels"},
      {inList(nestedArrays(50000)), "nested deeper than 64 levels"},
  };
  for (const Case& refused : cases) {
    EXPECT_THAT(refusal(refused.bytes), HasSubstr(refused.reason)) << refused.bytes.substr(0, 200);
  }
  EXPECT_EQ(refusal(inList(nestedArrays(64))), "accepted");
}

TEST(PropertyListXml, AnEntityBehindAnExternalTypeIsRefusedAndNotLeftOut) {
  // With a type that is never fetched the parser cannot know the entity, and would go on without its text.
  EXPECT_THAT(refusal("<!DOCTYPE plist SYSTEM 'file:///etc/passwd'><plist><string>a&e;b</string></plist>"),
              HasSubstr("line 1: the unknown entity \"e\""));
}

TEST(PropertyListXml, RefusesMoreBytesThanTheLimit) {
  const Result<Value> value = parsePropertyList(std::string(kPropertyListSizeLimit + 1, ' '));
  ASSERT_FALSE(value.ok());
  EXPECT_EQ(value.error().code(), EFBIG);
  EXPECT_THAT(value.error().description(), HasSubstr("1048576"));
}

TEST(PropertyListXml, RefusesMoreValuesThanTheLimit) {
  const std::string bytes = "<plist><array><true/><array><string>a</string></array></array></plist>";
  EXPECT_TRUE(parsePropertyList(bytes, kPropertyListSizeLimit, 4).ok());
  const Result<Value> refused = parsePropertyList(bytes, kPropertyListSizeLimit, 3);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().description(), "line 1: too many values");
}

TEST(PropertyListXml, DoesNotWriteWhatItCouldNotRead) {
  EXPECT_THAT(written(Value("\x01"s)), HasSubstr("failed: a string or key"));
  EXPECT_THAT(written(Value("a\0b"s)), HasSubstr("failed: a string or key"));
  EXPECT_THAT(written(Value("\xff"s)), HasSubstr("failed: a string or key"));
  EXPECT_THAT(written(Value(Array{Value("\x1b"s)})), HasSubstr("failed: a string or key"));
  EXPECT_THAT(written(Value(Dictionary{{"\x01"s, 1}})), HasSubstr("failed: a string or key"));
  EXPECT_THAT(written(Value(Date{std::numeric_limits<std::int64_t>::max()})), HasSubstr("failed: a date"));
  EXPECT_THAT(written(Value(Date{std::numeric_limits<std::int64_t>::min()})), HasSubstr("failed: a date"));
  EXPECT_THAT(written(Value(Dictionary{{"d", Date{253402300800LL * 1000000}}})), HasSubstr("failed: a date"));
  Value deep = Value(Array{});
  for (int level = 1; level < 64; ++level) deep = Value(Array{deep});
  EXPECT_EQ(parsed(written(deep)), deep);
  EXPECT_THAT(written(Value(Array{deep})), HasSubstr("failed: values are nested deeper than 64 levels"));
  EXPECT_THAT(written(Value(Dictionary{{"d", deep}})), HasSubstr("failed: values are nested deeper"));
}

// --- Binary ---

// Puts a binary list together of objects that are given as they stand in the file. All references and
// offsets are one byte.
std::string binaryList(const std::vector<std::string>& objects, unsigned top = 0) {
  std::string bytes = "bplist00";
  std::string offsets;
  for (const std::string& object : objects) {
    offsets += static_cast<char>(bytes.size());
    bytes += object;
  }
  const auto table = static_cast<char>(bytes.size());
  return bytes + offsets + "\0\0\0\0\0\0\x01\x01"s + "\0\0\0\0\0\0\0"s + static_cast<char>(objects.size()) +
         "\0\0\0\0\0\0\0"s + static_cast<char>(top) + "\0\0\0\0\0\0\0"s + table;
}

std::string binaryOf(const Value& value) {
  const std::string xml = written(value);
  plist_t list = nullptr;
  plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &list);
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(list, &bytes, &length);
  std::string binary(bytes, length);
  std::free(bytes);
  plist_free(list);
  return binary;
}

TEST(PropertyListBinary, ReadsWhatTheLibraryWrites) {
  const Value value = everyKind();
  const Value again = parsed(binaryOf(value));
  EXPECT_EQ(again, value);
  EXPECT_EQ(keysOf(again), keysOf(value));

  Array many;
  for (int i = 0; i < 5000; ++i) many.emplace_back(Dictionary{{"n", i}, {"s", std::string(i % 300, 'x')}});
  EXPECT_EQ(parsed(binaryOf(Value(many))), Value(many));
}

TEST(PropertyListBinary, ReadsEveryKindOfObject) {
  EXPECT_EQ(parsed(binaryList({"\x08"})), Value(false));
  EXPECT_EQ(parsed(binaryList({"\x09"})), Value(true));
  EXPECT_EQ(parsed(binaryList({"\x10\xff"})), Value(255));
  EXPECT_EQ(parsed(binaryList({"\x11\xff\xff"})), Value(65535));
  EXPECT_EQ(parsed(binaryList({"\x12\xff\xff\xff\xff"})), Value(std::int64_t{4294967295}));
  EXPECT_EQ(parsed(binaryList({"\x13\xff\xff\xff\xff\xff\xff\xff\xfe"})), Value(-2));
  EXPECT_EQ(parsed(binaryList({"\x14" + std::string(15, '\0') + "\x05"})), Value(5));
  EXPECT_EQ(parsed(binaryList({"\x14" + std::string(15, '\xff') + "\xfe"})), Value(-2));
  EXPECT_EQ(parsed(binaryList({"\x22\x3f\xc0\0\0"s})), Value(1.5));
  EXPECT_EQ(parsed(binaryList({"\x23\x3f\xf8\0\0\0\0\0\0"s})), Value(1.5));
  EXPECT_EQ(parsed(binaryList({"\x33\0\0\0\0\0\0\0\0"s})), Value(Date{978307200LL * 1000000}));
  EXPECT_EQ(parsed(binaryList({"\x33\xbf\xe0\0\0\0\0\0\0"s})), Value(Date{978307199500000LL}));
  EXPECT_EQ(parsed(binaryList({"\x42\0\x01"s})), Value(Data{"\0\x01"s}));
  EXPECT_EQ(parsed(binaryList({"\x52hi"})), Value("hi"));
  EXPECT_EQ(parsed(binaryList({"\x5f\x10\x02hi"})), Value("hi"));
  EXPECT_EQ(parsed(binaryList({"\x63\0\xe9\xd8\x3d\xde\0"s})), Value("\xc3\xa9\xf0\x9f\x98\x80"));
  EXPECT_EQ(parsed(binaryList({"\xa2\x01\x01", "\x10\x07"})), Value(Array{Value(7), Value(7)}));
  EXPECT_EQ(parsed(binaryList({"\xd1\x01\x02", "\x51k", "\x10\x07"})), Value(Dictionary{{"k", 7}}));
  EXPECT_EQ(parsed(binaryList({"\x10\x07", "\x51k", "\xd1\x01\x00"s}, 2)), Value(Dictionary{{"k", 7}}));
}

TEST(PropertyListBinary, AMicrosecondOfAFarDateSurvives) {
  // 0x41E1B5C9ADC00000 is a date beyond 2069.
  const Value value = parsed(binaryList({"\x33\x41\xe1\xb5\xc9\xad\xc0\0\0"s}));
  ASSERT_TRUE(value.asDate());
  const double seconds = std::bit_cast<double>(0x41E1B5C9ADC00000ULL);
  EXPECT_EQ(value.asDate()->microsecondsSince1970,
            (static_cast<std::int64_t>(seconds) + 978307200) * 1000000);
}

TEST(PropertyListBinary, RefusesHostileFiles) {
  struct Case {
    const char* why;
    std::string bytes;
    const char* reason;
  };
  const std::string good = binaryList({"\xa1\x01", "\x51k"});
  const auto changed = [&](std::size_t fromEnd, char byte) {
    std::string bytes = good;
    bytes[bytes.size() - fromEnd] = byte;
    return bytes;
  };
  const std::vector<Case> cases = {
      {"nothing but the mark", "bplist00", "too short"},
      {"no objects fit before the trailer", "bplist00" + std::string(31, '\0'), "too short"},
      {"offsets of no bytes", changed(26, 0), "bad trailer"},
      {"offsets of nine bytes", changed(26, 9), "bad trailer"},
      {"references of no bytes", changed(25, 0), "bad trailer"},
      {"references of nine bytes", changed(25, 9), "bad trailer"},
      {"no objects", changed(17, 0), "bad trailer"},
      {"more objects than bytes", changed(18, 1), "bad trailer"},
      {"an object count near the end of the numbers", changed(24, '\xff'), "bad trailer"},
      {"an offset table before the objects", changed(1, 2), "bad trailer"},
      {"an offset table beyond the file", changed(1, 100), "bad trailer"},
      {"an offset table that is far beyond the file", changed(8, '\xff'), "bad trailer"},
      {"a top object that is not there", changed(9, 2), "a reference to an object that is not there"},
      {"an object offset inside the mark", changed(33, 3), "bad offset"},
      {"an object offset inside the offset table", changed(33, 12), "bad offset"},
      {"a null", binaryList({"\0"s}), "a null or fill object"},
      {"a fill byte", binaryList({"\x0f"}), "a null or fill object"},
      {"a UID", binaryList({"\x80\x01"}), "a UID"},
      {"a set", binaryList({"\xc1\x01", "\x09"}), "unknown kind"},
      {"an integer of 32 bytes", binaryList({"\x15" + std::string(32, '\0')}),
       "an integer of an unknown size"},
      {"an integer above 64 bits",
       binaryList({"\x14" + std::string(7, '\0') + "\x01" + std::string(8, '\0')}), "does not fit"},
      {"an integer above the signed range",
       binaryList({"\x14" + std::string(8, '\0') + std::string(8, '\xff')}), "does not fit"},
      {"an integer cut off", binaryList({"\x13\x01"}), "runs over the end"},
      {"a real of two bytes", binaryList({"\x21\x01\x01"}), "a real of an unknown size"},
      {"a date of four bytes", binaryList({"\x32\0\0\0\0"s}), "a date of an unknown size"},
      {"a date that is no number", binaryList({"\x33\x7f\xf8\0\0\0\0\0\0"s}), "out of range"},
      {"a date that is endless", binaryList({"\x33\x7f\xf0\0\0\0\0\0\0"s}), "out of range"},
      {"a date of the year 30000", binaryList({"\x33\x42\x69\0\0\0\0\0\0"s}), "out of range"},
      {"a string longer than the file",
       binaryList({"\x5e"
                   "abc"}),
       "runs over the end"},
      {"a length of 2^63", binaryList({"\x5f\x13\x80" + std::string(7, '\0')}), "runs over the end"},
      {"a UTF-16 length that overflows in bytes", binaryList({"\x6f\x13\x80" + std::string(7, '\0')}),
       "runs over the end"},
      {"a length that is no integer", binaryList({"\x5f\x51k"}), "bad length"},
      {"a length of 16 bytes", binaryList({"\x5f\x14" + std::string(16, '\0')}), "bad length"},
      {"a length cut off", binaryList({"\x5f"}), "runs over the end"},
      {"a string that is not ASCII", binaryList({"\x51\xe9"}), "not ASCII"},
      {"half a surrogate pair", binaryList({"\x61\xd8\x3d"}), "not UTF-16"},
      {"a low surrogate first", binaryList({"\x62\xde\0\xd8\x3d"s}), "not UTF-16"},
      {"two high surrogates", binaryList({"\x62\xd8\x3d\xd8\x3d"}), "not UTF-16"},
      {"an array longer than the file", binaryList({"\xae\x01"}), "runs over the end"},
      {"an array of 2^63 values", binaryList({"\xaf\x13\x80" + std::string(7, '\0')}), "runs over the end"},
      {"a dictionary of 2^62 values", binaryList({"\xdf\x13\x40" + std::string(7, '\0')}),
       "runs over the end"},
      {"a reference to no object", binaryList({"\xa1\x05"}), "not there"},
      {"an array that holds itself", binaryList({"\xa1\0"s}), "holds itself"},
      {"a round of three", binaryList({"\xa1\x01", "\xd1\x03\x02", "\xa1\x00"s, "\x51k"}), "holds itself"},
      {"a key that is a number", binaryList({"\xd1\x01\x01", "\x10\x07"}), "a key that is no string"},
      {"a key that is the dictionary", binaryList({"\xd1\x00\x01"s, "\x10\x07"}), "holds itself"},
      {"a doubled key", binaryList({"\xd2\x01\x01\x02\x02", "\x51k", "\x09"}), "a doubled key"},
      {"a doubled key of two objects", binaryList({"\xd2\x01\x02\x03\x03", "\x51k", "\x51k", "\x09"}),
       "doubled"},
  };
  for (const Case& refused : cases) {
    EXPECT_THAT(refusal(refused.bytes), HasSubstr(refused.reason)) << refused.why;
  }
}

TEST(PropertyListBinary, RefusesNestingBeyondTheLimit) {
  const auto nested = [](int levels) {
    std::vector<std::string> objects;
    for (int i = 1; i < levels; ++i) objects.push_back("\xa1"s + static_cast<char>(i));
    objects.emplace_back("\xa0");
    return binaryList(objects);
  };
  EXPECT_EQ(refusal(nested(64)), "accepted");
  EXPECT_THAT(refusal(nested(65)), HasSubstr("nested too deep"));
}

TEST(PropertyListBinary, RefusesAFewBytesThatStandForMillionsOfValues) {
  // Twenty arrays, each of which holds the next one ten times.
  std::vector<std::string> objects;
  for (int i = 1; i <= 15; ++i) objects.push_back("\xaa"s + std::string(10, static_cast<char>(i)));
  objects.emplace_back("\x09");
  EXPECT_THAT(refusal(binaryList(objects)), HasSubstr("too many values"));
}

TEST(PropertyListBinary, RefusesALargeStringThatIsNamedOverAndOver) {
  // One string of 500,000 bytes and an array that holds it 1,000 times; offsets take three bytes.
  std::string bytes = "bplist00";
  bytes += "\xaf\x11\x03\xe8" + std::string(1000, '\x01');
  const std::size_t second = bytes.size();
  bytes += "\x5f\x12\0\x07\xa1\x20"s + std::string(500000, 'x');
  const std::size_t table = bytes.size();
  for (const std::size_t offset : {std::size_t{8}, second}) {
    for (const unsigned shift : {16U, 8U, 0U}) bytes += static_cast<char>(offset >> shift);
  }
  bytes += "\0\0\0\0\0\0\x03\x01"s + "\0\0\0\0\0\0\0\x02"s + std::string(8, '\0') + std::string(4, '\0');
  for (const unsigned shift : {24U, 16U, 8U, 0U}) bytes += static_cast<char>(table >> shift);
  EXPECT_THAT(refusal(bytes), HasSubstr("too much content"));
}

TEST(PropertyListBinary, DamagedFilesGiveAnErrorOrAValueButNeverHarm) {
  std::mt19937 random(7);
  const std::string good = binaryOf(everyKind());
  int refused = 0;
  for (int round = 0; round < 5000; ++round) {
    std::string bytes = good;
    for (unsigned change = 0; change <= random() % 3; ++change) {
      bytes[8 + random() % (bytes.size() - 8)] = static_cast<char>(random());
    }
    if (random() % 8 == 0) bytes.erase(8 + random() % (bytes.size() - 8), random() % 20);
    refused += parsePropertyList(bytes).ok() ? 0 : 1;
  }
  EXPECT_GT(refused, 250);
}

// --- Files ---

class PropertyListFile : public testing::Test {
 protected:
  ScratchRoot root_;
  PosixFileSystem files_{root_.path()};
};

TEST_F(PropertyListFile, IsWrittenWholeAndReadBack) {
  const Dictionary content = *everyKind().asDictionary();
  const Result<void> done = writePropertyListFile(files_, "/list.plist", content, {{}, {}, 0640});
  ASSERT_TRUE(done.ok()) << done.error().description();
  const Result<Dictionary> again = readPropertyListFile(files_, "/list.plist");
  ASSERT_TRUE(again.ok()) << again.error().description();
  EXPECT_EQ(again.value(), content);
  EXPECT_EQ(files_.attributes("/list.plist").value().permissions, 0640U);
}

TEST_F(PropertyListFile, GetsTheDirectoriesAboveItThatAreMissing) {
  ASSERT_TRUE(writePropertyListFile(files_, "/new/deep/list.plist", {{"k", 7}}, {{}, {}, 0600}).ok());
  EXPECT_EQ(readPropertyListFile(files_, "/new/deep/list.plist").value(), (Dictionary{{"k", 7}}));
  EXPECT_EQ(files_.attributes("/new").value().permissions, 0755U);
  EXPECT_EQ(files_.attributes("/new/deep").value().permissions, 0755U);
}

TEST_F(PropertyListFile, MayBeLargerThanAListFromOutside) {
  const Dictionary large{{"k", std::string(2 * kPropertyListSizeLimit, 'x')}};
  ASSERT_TRUE(writePropertyListFile(files_, "/list.plist", large, {}).ok());
  EXPECT_EQ(readPropertyListFile(files_, "/list.plist").value(), large);
}

TEST_F(PropertyListFile, MayBeBinary) {
  const std::string bytes = binaryList({"\xd1\x01\x02", "\x51k", "\x10\x07"});
  ASSERT_TRUE(files_.createFile("/list.plist", bytes, {}, Flush::now).ok());
  EXPECT_EQ(readPropertyListFile(files_, "/list.plist").value(), (Dictionary{{"k", 7}}));
}

TEST_F(PropertyListFile, ThatHoldsNoDictionaryIsRefused) {
  ASSERT_TRUE(files_.createFile("/list.plist", written(Value(Array{})), {}, Flush::now).ok());
  EXPECT_THAT(readPropertyListFile(files_, "/list.plist").error().description(),
              HasSubstr("top level of the property list is no dictionary"));
}

TEST_F(PropertyListFile, ThatIsMissingMalformedOrTooLargeIsAnError) {
  EXPECT_EQ(readPropertyListFile(files_, "/none.plist").error().code(), ENOENT);
  ASSERT_TRUE(files_.createFile("/list.plist", "rubbish", {}, Flush::now).ok());
  EXPECT_THAT(readPropertyListFile(files_, "/list.plist").error().description(), HasSubstr("line 1"));
  ASSERT_TRUE(
      files_.createFile("/big.plist", std::string(kPropertyListFileSizeLimit + 1, ' '), {}, Flush::now).ok());
  EXPECT_EQ(readPropertyListFile(files_, "/big.plist").error().code(), EFBIG);
}

TEST_F(PropertyListFile, StaysAsItWasWhenTheContentCannotBeWritten) {
  const Dictionary good{{"k", 7}};
  ASSERT_TRUE(writePropertyListFile(files_, "/list.plist", good, {}).ok());
  EXPECT_FALSE(writePropertyListFile(files_, "/list.plist", {{"k", "\x01"}}, {}).ok());
  const Dictionary large{{"k", std::string(kPropertyListFileSizeLimit, 'x')}};
  EXPECT_EQ(writePropertyListFile(files_, "/list.plist", large, {}).error().code(), EFBIG);
  EXPECT_EQ(readPropertyListFile(files_, "/list.plist").value(), good);
}

}  // namespace
}  // namespace tessard
