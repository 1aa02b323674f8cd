#include "Extensions/StringExtensions.h"
#include "Extensions/URLExtensions.h"
#include "Platform/PropertyList.h"
#include "Platform/URL.h"
#include "Posix/PosixError.h"
#include "Posix/Sysroot.h"
#include "Rehearsal/StandInMac.h"

#include <cerrno>
#include <cmath>

#include <gmock/gmock.h>

using platform::PropertyList;
using platform::URL;

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

TEST(PropertyLists, KeepKindsInBothFormats) {
  const PropertyList list(PropertyList::Dictionary{{"boolean", true},
                                                   {"integer", std::int64_t{-3}},
                                                   {"real", 1.5},
                                                   {"text", "1 < é"},
                                                   {"data", PropertyList::Data{0, 255}},
                                                   {"date", PropertyList::Date{700000000.25}},
                                                   {"array", PropertyList::Array{1, "1", PropertyList::Dictionary{}}}});
  for (const auto format : {PropertyList::Format::xml, PropertyList::Format::binary}) {
    const auto read = PropertyList::parse(list.serialized(format));
    ASSERT_TRUE(read);
    EXPECT_EQ((*read)["boolean"]->as<bool>() != nullptr, true);
    EXPECT_EQ((*read)["integer"]->number(), -3);
    EXPECT_EQ((*read)["boolean"]->number(), std::nullopt);
    EXPECT_EQ((*read)["text"]->number(), std::nullopt);
    EXPECT_EQ(*(*read)["array"], *list["array"]);
    EXPECT_EQ(*(*read)["data"], *list["data"]);
    EXPECT_EQ(*(*read)["text"], *list["text"]);
  }
}

TEST(PropertyLists, BoundDatesWhenWritten) {
  for (const double time : {1e300, -1e300, std::nan(""), 2147483647.5}) {
    const std::string written = PropertyList(PropertyList::Date{time}).serialized(PropertyList::Format::binary);
    EXPECT_TRUE(PropertyList::parse(written)) << time;
  }
}

TEST(PropertyLists, SurviveHostileBinaryForms) {
  using namespace std::string_literals;
  const std::string text =
      PropertyList(PropertyList::Dictionary{{"key", "\U0001F642 é"}}).serialized(PropertyList::Format::binary);
  ASSERT_TRUE(PropertyList::parse(text));
  EXPECT_EQ(*PropertyList::parse(text)->operator[]("key"), PropertyList("\U0001F642 é"));
  // Sixteen arrays, each twice in the one before: 2^16 values of 110 bytes if they were unfolded.
  std::string sharing = "bplist00";
  for (char i = 1; i <= 16; ++i) sharing += "\xA2"s + i + i;
  sharing += "\x09";
  std::string offsets;
  for (int i = 0; i <= 16; ++i) offsets += static_cast<char>(8 + (3 * i));
  const std::string trailer = "\0\0\0\0\0\0\x01\x01"s + "\0\0\0\0\0\0\0\x11"s + "\0\0\0\0\0\0\0\0"s;
  EXPECT_FALSE(
      PropertyList::parse(sharing + offsets + trailer + "\0\0\0\0\0\0\0"s + static_cast<char>(sharing.size())));
  // One text of 64 KiB that an array has 2000 times.
  const std::string many = "bplist00\xAF\x11\x07\xD0"s + std::string(2000, '\x01') + "\x5F\x12\0\1\0\0"s;
  const std::string places = "\0\0\x08\0\x07\xDC"s + "\0\0\0\0\0\0\x03\x01"s + "\0\0\0\0\0\0\0\x02"s;
  EXPECT_FALSE(
      PropertyList::parse(many + std::string(65536, 'x') + places + "\0\0\0\0\0\0\0\0"s + "\0\0\0\0\0\1\x07\xE2"s));
}

TEST(PropertyLists, RefuseWhatIsNone) {
  const std::string deep(100'000, 'x');
  std::string nested = "<plist>";
  for (int i = 0; i < 300'000; ++i) nested += "<array>";
  for (int i = 0; i < 300'000; ++i) nested += "</array>";
  std::string hidden = "<plist>";  // nesting that end tags nobody reads seem to undo
  for (int i = 0; i < 300'000; ++i) hidden += "<array><!--</array>-->";
  std::string encoded = "<plist><string>";  // a text that takes hours to decode
  for (int i = 0; i < 6'000'000; ++i) encoded += "&amp;";
  for (const std::string& bytes : {std::string(), deep, nested + "</plist>", hidden, encoded + "</string></plist>",
                                   std::string(6'000'000, '<'), std::string("bplist00\xFF\xFF\xFF")}) {
    const auto list = PropertyList::parse(bytes);
    ASSERT_FALSE(list) << bytes.substr(0, 40);
    EXPECT_EQ(list.error().code(), platform::NSPropertyListReadCorruptError);
  }
}

TEST(CocoaErrors, FollowTheCauseAndTheKindOfOperation) {
  using enum platform::posix::Access;
  const std::vector<std::tuple<int, std::int64_t, std::int64_t, std::int64_t>> rows = {
      // errno, code reading, code writing, number on a Mac
      {ENOENT, 260, 4, 2},       {EPERM, 257, 513, 1},    {EACCES, 257, 513, 13}, {ENAMETOOLONG, 258, 514, 63},
      {EFBIG, 263, 512, 27},     {EEXIST, 256, 516, 17},  {ENOSPC, 256, 640, 28}, {EDQUOT, 256, 640, 69},
      {EROFS, 256, 642, 30},     {ENOTDIR, 256, 512, 20}, {EIO, 256, 512, 5},     {ELOOP, 256, 512, 62},
      {ENOTEMPTY, 256, 512, 66}, {EAGAIN, 256, 512, 35},
  };
  for (const auto& [number, read, write, darwin] : rows) {
    const auto reads = platform::posix::cocoaError(number, reading, "/p");
    EXPECT_EQ(reads.code(), read) << number;
    EXPECT_EQ(platform::posix::cocoaError(number, writing, "/p").code(), write) << number;
    EXPECT_EQ(reads.underlyingError()->domain(), "NSPOSIXErrorDomain");
    EXPECT_EQ(reads.underlyingError()->code(), darwin) << number;
  }
}

TEST(Sysroot, TranslatesMacPathsAndNoOthers) {
  const rehearsal::StandInMac mac;
  const std::filesystem::path link = mac.folder() / "link";
  std::filesystem::create_directory_symlink(mac.sysroot(), link);
  const platform::posix::Sysroot sysroot(link.string() + "/");
  const std::vector<std::pair<std::string, bool>> rows = {{"/Applications", true},
                                                          {"/Applications/Orvik.app", true},
                                                          {"/Volumes/X", true},
                                                          {"/Library/a", true},
                                                          {"/Network", true},
                                                          {"/System/Library", true},
                                                          {"/usr/bin/open", true},
                                                          {"/bin/launchctl", true},
                                                          {"/usr/bin/touch", false},
                                                          {"/usr/bin/open2", false},
                                                          {"/bin/bash", false},
                                                          {"/ApplicationsX", false},
                                                          {"/tmp/Applications", false},
                                                          {"Applications", false},
                                                          {"/Users/u/Library", false},
                                                          {"/", false},
                                                          {"", false}};
  for (const auto& [path, isMac] : rows) {
    const std::string there = sysroot.machinePath(path);
    EXPECT_EQ(there, isMac ? link.string() + path : path);
    EXPECT_EQ(sysroot.macPath(there), path);
    const std::string resolved = mac.sysroot().string() + path;
    EXPECT_EQ(sysroot.macPath(resolved), isMac ? path : resolved);
  }
  EXPECT_EQ(sysroot.macPath(link.string() + "/etc/hosts"), link.string() + "/etc/hosts");
  EXPECT_EQ(sysroot.macPath(mac.sysroot().string() + "2/Applications"), mac.sysroot().string() + "2/Applications");
  EXPECT_EQ(platform::posix::Sysroot("/").machinePath("/Applications/a"), "/Applications/a");
}

}  // namespace
