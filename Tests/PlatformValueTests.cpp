#include "Extensions/StringExtensions.h"
#include "Extensions/URLExtensions.h"
#include "Platform/PropertyList.h"
#include "Platform/URL.h"
#include "Posix/PosixError.h"
#include "Posix/Sysroot.h"
#include "Rehearsal/StandInMac.h"

#include <cerrno>
#include <cmath>
#include <limits>

#include <gmock/gmock.h>

using platform::PropertyList;
using platform::URL;
using namespace std::string_literals;

namespace {

TEST(URLParsing, AcceptsReferencesAndRepairsComponents) {
  const std::vector<std::pair<const char*, const char*>> rows = {
      {"https://example.com/a.dmg?x=1#f", "https://example.com/a.dmg?x=1#f"},
      {"HTTPS://u:p@Example.com:8080", "HTTPS://u:p@Example.com:8080"},
      {"../a/b.dmg", "../a/b.dmg"},
      {"example.com/x", "example.com/x"},
      {"http://[::1]:80/", "http://[::1]:80/"},
      {"https://a/with blank", "https://a/with%20blank"},
      {"https://a/a%20b c?q r#f#g", "https://a/a%2520b%20c?q%20r#f%23g"},
      {"https://a/100%", "https://a/100%25"},
      {"https://a/\xC3\xA9", "https://a/%C3%A9"},
      {"http://", "http://"},
      {"", nullptr},
      {"12:34", nullptr},
      {"hello world: x", nullptr},
      {"http://a b/", nullptr},
      {"http://\xC3\xA9/", nullptr},
      {"http://a:port/", nullptr},
      {"http://[::1/", nullptr},
      {"http://a%zz/", nullptr},
  };
  for (const auto& [text, parsed] : rows) {
    const auto url = URL::parse(text);
    EXPECT_EQ(url.has_value(), parsed != nullptr) << text;
    EXPECT_EQ(url ? url->absoluteString() : "", parsed != nullptr ? parsed : "");
  }
  EXPECT_FALSE(URL::parse(std::string_view("http://a\0b/", 11)));
}

TEST(URLParsing, TakesURLsApart) {
  const auto url = *URL::parse("HTTPS://Example.com:8080/Orvik%20App/x%2Fy.APP/?q#f");
  EXPECT_EQ(url.scheme(), "https");
  EXPECT_EQ(url.host(), "Example.com");
  EXPECT_EQ(url.path(), "/Orvik App/x/y.APP");
  const URL file = URL::fileURL("/Volumes/A B%/é", URL::PathKind::directory).appendingPathComponent("O'vik;.app");
  EXPECT_EQ(file.absoluteString(), "file:///Volumes/A%20B%25/%C3%A9/O'vik;.app");
  EXPECT_EQ(file.path(), "/Volumes/A B%/é/O'vik;.app");
  EXPECT_EQ(URL::parse(file.absoluteString())->path(), file.path());
  EXPECT_EQ(file.lastPathComponent(), "O'vik;.app");
  EXPECT_EQ(file.pathExtension(), "app");
  for (const char* path : {"/a/.app", "/a/app", "/a.b/app", "/a/x."})
    EXPECT_EQ(URL::fileURL(path).pathExtension(), "") << path;
  EXPECT_EQ(URL::fileURL("/").appendingPathComponent("a").path(), "/a");
}

TEST(URLParsing, ABrokenConstantIsFatal) {
  EXPECT_DEATH(corvane::urlFromStaticString("http://a b/"), "Failed to parse static URL: `http://a b/`");
}

TEST(UTF8, IsToldFromOtherBytes) {
  for (const char* text : {"", "a\n", "é", "€", "\xF0\x9F\x99\x82", "\xED\x9F\xBF", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(corvane::isUTF8(text)) << text;
  }
  for (const char* bytes : {"\x80", "\xC3", "\xC3(", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF0\x80\x80\xAF",
                            "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "a\xFF"}) {
    EXPECT_FALSE(corvane::isUTF8(bytes)) << testing::PrintToString(bytes);
  }
}

/// A binary property list of these objects, the first one the root; fewer than 256 bytes of them.
std::string binaryList(const std::vector<std::string>& objects) {
  std::string bytes = "bplist00";
  std::string offsets;
  for (const auto& object : objects) {
    offsets += static_cast<char>(bytes.size());
    bytes += object;
  }
  const char offsetTable = static_cast<char>(bytes.size());
  return bytes + offsets + "\0\0\0\0\0\0\x01\x01"s + "\0\0\0\0\0\0\0"s + static_cast<char>(objects.size()) +
         std::string(15, '\0') + offsetTable;
}

/// The text with a NUL before or after each character: UTF-16.
std::string wide(std::string_view text, bool isBigEndian) {
  std::string bytes;
  for (const char c : text) bytes += isBigEndian ? std::string{'\0', c} : std::string{c, '\0'};
  return bytes;
}

std::string repeated(std::size_t count, std::string_view text) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) all += text;
  return all;
}

PropertyList rewritten(const PropertyList& value, PropertyList::Format format) {
  const std::string bytes = value.serialized(format);
  const auto read = PropertyList::parse(bytes);
  return read ? *read : PropertyList("not read: " + bytes);
}

TEST(PropertyLists, ComeBackAsTheyWere) {
  using Array = PropertyList::Array;
  using Data = PropertyList::Data;
  using Date = PropertyList::Date;
  using Dictionary = PropertyList::Dictionary;
  using UID = PropertyList::UID;
  constexpr auto infinity = std::numeric_limits<double>::infinity();
  constexpr auto least = std::numeric_limits<std::int64_t>::min();
  constexpr double distantFuture = 63113904000;  // 4001-01-01
  const Array inBoth = {
      Array{true, false, 0, 1, 255, 256, 65536, 1L << 32U, -1, least, std::numeric_limits<std::int64_t>::max()},
      Array{std::uint64_t{1} << 63U, std::numeric_limits<std::uint64_t>::max(), UID{7}, UID{0xFFFFFFFF}},
      Array{1.0, 1.5, 0.1, 1e300, 5e-324, -infinity},
      Array{"", " 1 < 2 &amp; \r\n\t> ", "é \U0001F642 \uFFFD", "fifteen letters", std::string(70'000, 'x')},
      Array{Data{}, Data{0}, Data{0, 255}, Data(300, 0x5A)},
      Array{Date{0}, Date{distantFuture}, Date{-63114076800}, Date{-1097172086400}},
      Array{Array{}, Array{1, "1", 1.0}, Dictionary{}, Dictionary{{"", 1}, {"<k>", Array{}}}}};
  const Array inBinary = {
      Array{"a\0b"s, "\x1B\uFFFE", "\xED\xA0\xBD half a pair", "\xED\xA0\xBD\xED\xB8\x80", "\xFF\xC3"},
      Array{Date{distantFuture + 0.25}, Date{1e300}, Dictionary{{"CF$UID", 5}},
            Dictionary{{"CF$UID", std::int64_t{1} << 40}}, Dictionary{{"a\0b"s, 1}, {"a", 2}}}};
  const Array inXML = {Array{"a\uFFFDb", "\uFFFD\uFFFD", "\uFFFD half a pair", "\uFFFD\uFFFD", "\uFFFD\uFFFD"},
                       Array{Date{distantFuture}, Date{970912655999}, UID{5},
                             Dictionary{{"CF$UID", std::int64_t{1} << 40}}, Dictionary{{"a\uFFFDb", 1}, {"a", 2}}}};
  for (const auto format : {PropertyList::Format::binary, PropertyList::Format::xml}) {
    for (const auto& row : inBoth) EXPECT_EQ(rewritten(row, format), row) << row.serialized(PropertyList::Format::xml);
    EXPECT_TRUE(std::isnan(*rewritten(std::nan(""), format).number()));
  }
  EXPECT_EQ(rewritten(inBinary, PropertyList::Format::binary), PropertyList(inBinary));
  EXPECT_EQ(rewritten(inBinary, PropertyList::Format::xml), PropertyList(inXML));
  EXPECT_EQ(PropertyList(true).number(), std::nullopt);
  EXPECT_EQ(PropertyList("1").number(), std::nullopt);
}

TEST(PropertyLists, AreWrittenInTheUsualForms) {
  const PropertyList::Array list = {PropertyList::Data(46, 0), PropertyList::Array{}, 2.5, PropertyList::Date{-0.5}};
  const std::string text =
      PropertyList(PropertyList::Dictionary{{"b", list}, {"a", "\r&"}}).serialized(PropertyList::Format::xml);
  const std::string data = "\t\t<data>\n\t\t" + repeated(60, "A") + "\n\t\tAA==\n\t\t</data>\n";
  EXPECT_EQ(
      text.substr(text.find("<plist")),
      "<plist version=\"1.0\">\n<dict>\n\t<key>a</key>\n\t<string>&#13;&amp;</string>\n\t<key>b</key>\n\t<array>\n" +
          data + "\t\t<array/>\n\t\t<real>2.5</real>\n\t\t<date>2000-12-31T23:59:59Z</date>\n" +
          "\t</array>\n</dict>\n</plist>\n");
  // Objects stand after what refers to them; equal ones but containers are one.
  const PropertyList::Dictionary twin = {{"k", -2}};
  EXPECT_EQ(PropertyList(PropertyList::Array{twin, twin, "\u00E9", PropertyList::UID{256}, 0.5})
                .serialized(PropertyList::Format::binary),
            binaryList({"\xA5\x05\x04\x03\x02\x01"s, "\x22\x3F\0\0\0"s, "\x81\x01\0"s, "\x61\0\xE9"s, "\xD1\x07\x06"s,
                        "\xD1\x07\x06"s, "\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE"s, "\x51k"s}));
}

TEST(PropertyLists, AreReadAsOthersWriteThem) {
  const std::string declared = R"(<?xml version="1.0" encoding="UTF-16"?><plist><string>x</string></plist>)";
  const std::string upperHalf(8, '\0');
  const std::vector<std::pair<std::string, PropertyList>> rows = {
      {"<plist><integer> +0x1F </integer></plist>", 31},
      {"<plist><integer>-0X10</integer></plist>", -16},
      {"<plist><real>+1e2\n</real></plist>", 100.0},
      {"<plist><real>-Infinity</real></plist>", -std::numeric_limits<double>::infinity()},
      {"<plist><data>\n\tAP 8\n=\t</data></plist>", PropertyList::Data{0, 255}},
      {"<plist><date>-0044-03-15T12:00:00Z</date></plist>", PropertyList::Date{-64527624000}},
      {"<plist><string>a<!-- b -->&#x63;<![CDATA[<&]]>\r\n</string></plist>", "ac<&\n"},
      {"<plist><dict><key>k</key><true/><key>k</key><false> </false></dict></plist>",
       PropertyList::Dictionary{{"k", false}}},
      {" \n<?xml version='1.0'?><!DOCTYPE plist SYSTEM 'x'><true a='1'/>\0 what follows"s, true},
      {"\xEF\xBB\xBF<plist><string>\u00E9</string></plist>", "\u00E9"},
      {"\xFF\xFE" + wide(declared, false), "x"},
      {"\xFE\xFF" + wide(declared, true), "x"},
      {wide(declared, true), "x"},
      {binaryList({"\x14" + upperHalf + "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}),
       std::numeric_limits<std::uint64_t>::max()},
      {binaryList({"\x14" + upperHalf + upperHalf}), 0},
      {binaryList({"\x14" + std::string(15, '\xFF') + '\xFE'}), -2},
  };
  for (const auto& [bytes, value] : rows) {
    const auto read = PropertyList::parse(bytes);
    ASSERT_TRUE(read) << bytes;
    EXPECT_EQ(*read, value) << bytes;
  }
}

TEST(PropertyLists, RefuseWhatIsNone) {
  const auto inPlist = [](const std::string& contents) { return "<plist>" + contents + "</plist>"; };
  const auto manyOf = [&](std::size_t count, const char* values) {
    return inPlist("<array>" + repeated(count, values) + "</array>");
  };
  const auto nested = [&](std::size_t depth) {
    return inPlist(repeated(depth, "<array>") + "<true/>" + repeated(depth, "</array>"));
  };
  EXPECT_TRUE(PropertyList::parse(nested(PropertyList::maximumDepth)));
  // Sixteen arrays, each twice in the one before: 2^16 values of 110 bytes if they were unfolded.
  std::vector<std::string> doubled;
  for (char i = 1; i <= 16; ++i) doubled.push_back("\xA2"s + i + i);
  doubled.emplace_back("\x09");
  // One text of 64 KiB that an array has 2000 times.
  const std::string copied = "bplist00\xAF\x11\x07\xD0"s + std::string(2000, '\x01') + "\x5F\x12\0\1\0\0"s +
                             std::string(65536, 'x') + "\0\0\x08\0\x07\xDC"s + "\0\0\0\0\0\0\x03\x01"s +
                             "\0\0\0\0\0\0\0\x02"s + "\0\0\0\0\0\0\0\0"s + "\0\0\0\0\0\1\x07\xE2"s;
  std::vector<std::string> rows = {"", "no list", "<plist><true/></plist", "<plist><true/>", "bplist00\xFF\xFF\xFF",
                                   // bounds
                                   nested(PropertyList::maximumDepth + 1), repeated(300'000, "<dict><key>k</key>"),
                                   manyOf(PropertyList::maximumValues, "<true/>"),
                                   binaryList({"\x14"s + std::string(7, '\0') + '\x01' + std::string(8, '\0')}),
                                   binaryList({"\x14"s + std::string(8, '\xFF') + std::string(8, '\0')}),
                                   binaryList(doubled), copied,
                                   // entities
                                   "<!DOCTYPE plist [<!ENTITY a 'ha'>]><plist><string>&a;&a;</string></plist>",
                                   "<!DOCTYPE plist [<!ELEMENT plist ANY>]><plist><true/></plist>",
                                   "<!DOCTYPE plist SYSTEM 'x'><plist><string>a&unknown;b</string></plist>"};
  const std::vector<std::vector<const char*>> contents = {
      {"", "<true/><true/>", "<true/>x", "<foo/>", "<plist><true/></plist>", "<key>k</key>", "<array></dict>"},
      {"<array>x</array>", "<array><key>k</key></array>", "<string><true/></string>", "<dict><true/></dict>"},
      {"<dict><key>k</key></dict>", "<dict><key>k</key><key>l</key></dict>", "<dict>k<key>k</key><true/></dict>"},
      {"<true>x</true>", "<string>\x1B</string>", "<string>\xFF</string>", "<string>&#0;</string>"},
      {"<integer/>", "<integer>1.5</integer>", "<integer>--1</integer>", "<integer>0x</integer>"},
      {"<integer>18446744073709551616</integer>", "<integer>-9223372036854775809</integer>"},
      {"<real/>", "<real>1,5</real>", "<real>+-1</real>", "<real>1e999x</real>"},
      {"<data>AP8</data>", "<data>A===</data>", "<data>AP8=AAAA</data>", "<data>A%8=</data>", "<date/>"},
      {"<date>2001-02-29T00:00:00Z</date>", "<date>2001-01-01T24:00:00Z</date>", "<date>2001-01-01T00:00:00</date>"},
      {"<date>40000-01-01T00:00:00Z</date>", "<date>2001-01-01 00:00:00Z</date>"}};
  for (const auto& row : contents) {
    for (const char* content : row) rows.push_back(inPlist(content));
  }
  for (const std::string& bytes : rows) {
    const auto list = PropertyList::parse(bytes);
    ASSERT_FALSE(list) << bytes.substr(0, 80);
    EXPECT_EQ(list.error().code(), platform::NSPropertyListReadCorruptError);
  }
}

TEST(CocoaErrors, FollowTheCauseAndTheKindOfOperation) {
  using enum platform::posix::Access;
  const auto codes = [](int number, platform::posix::Access access) {
    const auto error = platform::posix::cocoaError(number, access, "/p");
    return std::pair(error.code(), error.underlyingError()->code());
  };
  // Some that no other test provokes; the second number is the one on a Mac.
  EXPECT_EQ(codes(EPERM, reading), std::pair(257L, 1L));
  EXPECT_EQ(codes(ENAMETOOLONG, reading), std::pair(258L, 63L));
  EXPECT_EQ(codes(ENOSPC, writing), std::pair(640L, 28L));
  EXPECT_EQ(codes(EDQUOT, writing), std::pair(640L, 69L));
  EXPECT_EQ(codes(EROFS, writing), std::pair(642L, 30L));
  EXPECT_EQ(codes(EFBIG, writing), std::pair(512L, 27L));
  EXPECT_EQ(codes(EAGAIN, writing), std::pair(512L, 35L));
  EXPECT_EQ(codes(ELOOP, writing), std::pair(512L, 62L));
  EXPECT_EQ(codes(ENOTEMPTY, writing), std::pair(512L, 66L));
  for (const int number : {EEXIST, ENOSPC, EDQUOT, EROFS}) EXPECT_EQ(codes(number, reading).first, 256);
}

TEST(Sysroot, TranslatesMacPathsAndNoOthers) {
  const rehearsal::StandInMac mac;
  const std::filesystem::path link = mac.folder() / "link";
  std::filesystem::create_directory_symlink(mac.sysroot(), link);
  const platform::posix::Sysroot sysroot(link.string() + "/");
  for (const std::string path : {"/Applications", "/Applications/Orvik.app", "/Volumes/X", "/Library/a", "/Network",
                                 "/System/Library", "/usr/bin/open", "/bin/launchctl"}) {
    EXPECT_EQ(sysroot.machinePath(path), link.string() + path);
    EXPECT_EQ(sysroot.macPath(link.string() + path), path);
    EXPECT_EQ(sysroot.macPath(mac.sysroot().string() + path), path);
  }
  for (const std::string path : {"/usr/bin/touch", "/usr/bin/open2", "/bin/bash", "/ApplicationsX", "/tmp/Applications",
                                 "Applications", "/Users/u/Library", "/", ""}) {
    EXPECT_EQ(sysroot.machinePath(path), path);
    EXPECT_EQ(sysroot.macPath(path), path);
    EXPECT_EQ(sysroot.macPath(mac.sysroot().string() + path), mac.sysroot().string() + path);
  }
  EXPECT_EQ(sysroot.macPath(link.string() + "/etc/hosts"), link.string() + "/etc/hosts");
  EXPECT_EQ(sysroot.macPath(mac.sysroot().string() + "2/Applications"), mac.sysroot().string() + "2/Applications");
  EXPECT_EQ(platform::posix::Sysroot("/").machinePath("/Applications/a"), "/Applications/a");
}

}  // namespace
