#include "SigningWorld.h"

#include "CodeSignature/DiskImage.h"
#include "CodeSignature/PosixCodeSecurity.h"
#include "CodeSigning/CodeSigner.h"
#include "Platform/PropertyList.h"

#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>

namespace codesignature_tests {

using namespace platform;
using namespace platform::codesignature;
namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t imageCodeSize = 20000;

InputFile opened(const std::string& path) {
  return std::move(InputFile::open(AT_FDCWD, path, InputFile::Links::follow).value());
}

std::string infoPlist(const std::string& identifier, const std::string& executable) {
  return PropertyList(PropertyList::Dictionary{{"CFBundleIdentifier", identifier},
                                               {"CFBundleExecutable", executable},
                                               {"CFBundleVersion", "1.10.2"}})
      .serialized(PropertyList::Format::xml);
}

constexpr auto little = ByteOrder::littleEndian;

void appendName(Bytes& bytes, std::string_view name) {
  bytes.insert(bytes.end(), name.begin(), name.end());
  bytes.resize(bytes.size() + 16 - name.size());
}

void appendSegment(Bytes& bytes, std::string_view name, std::uint64_t offset, std::uint64_t size,
                   std::uint32_t sections = 0) {
  for (const std::uint32_t field : {0x19U, 72 + (80 * sections)}) appendInteger(bytes, field, little);
  appendName(bytes, name);
  for (const std::uint64_t field : {offset, size, offset, size}) appendInteger(bytes, field, little);
  for (const std::uint32_t field : {0U, 0U, sections, 0U}) appendInteger(bytes, field, little);
}

}  // namespace

Maker makerLike(const rehearsal::SigningIdentityPlan& plan) {
  const auto made = rehearsal::makeSigningIdentity(plan).value();
  return {std::move(codesigning::Identity::fromPEM(made.identity).value()), Anchors::fromPEM(made.anchors).value()};
}

SigningWorld::SigningWorld() {
  std::string pattern = (fs::temp_directory_path() / "signing.XXXXXX").string();
  folder_ = ::mkdtemp(pattern.data());
}
SigningWorld::~SigningWorld() {
  fs::remove_all(folder_);
}

const Maker& SigningWorld::maker() {
  static const Maker made = makerLike({});
  return made;
}

std::string SigningWorld::image(const std::string& name) const {
  std::string bytes(imageCodeSize, 'x');
  for (std::size_t i = 0; i < bytes.size(); i += 7) bytes[i] = static_cast<char>(i);
  Bytes trailer;
  appendInteger(trailer, std::uint32_t{0x6B6F6C79});
  appendInteger(trailer, std::uint32_t{4});
  trailer.resize(DiskImageTrailer::size);
  write(path(name), bytes.append(textOf(trailer)));
  return path(name);
}

std::string SigningWorld::smallBundle(const std::string& path, const std::string& identifier,
                                      std::string_view executable) const {
  fs::create_directories(path + "/Contents/MacOS");
  fs::create_directories(path + "/Contents/Resources");
  write(path + "/Contents/Info.plist", infoPlist(identifier, "Main"));
  write(path + "/Contents/MacOS/Main", executable);
  write(path + "/Contents/Resources/about.txt", "about");
  return path;
}

std::string SigningWorld::framework(const std::string& path) const {
  for (const char* version : {"A", "B"}) {
    const std::string root = path + "/Versions/" + version;
    fs::create_directories(root + "/Resources");
    write(root + "/Resources/Info.plist", infoPlist("com.corvane.Kit", "Kit"));
    write(root + "/Kit", std::string("the library, version ") + version);
  }
  for (const char* current : {"A", "B"}) {
    fs::remove(path + "/Versions/Current");
    fs::create_symlink(current, path + "/Versions/Current");
    sign(path);
  }
  fs::create_symlink("Versions/Current/Kit", path + "/Kit");
  fs::create_symlink("Versions/Current/Resources", path + "/Resources");
  return path;
}

std::string SigningWorld::bundle(const std::string& name) const {
  const std::string app = smallBundle(path(name), "com.corvane.ProjectOrvik",
                                      "\x7F"
                                      "ELF and the program");
  fs::create_directories(app + "/Contents/Resources/de.lproj");
  write(app + "/Contents/Resources/de.lproj/words.strings", "Wörter");
  fs::create_symlink("about.txt", app + "/Contents/Resources/link");
  sign(smallBundle(app + "/Contents/Helpers/Helper.app", "com.corvane.Helper", "the helper"));
  fs::create_directories(app + "/Contents/Frameworks");
  framework(app + "/Contents/Frameworks/Kit.framework");
  return app;
}

std::string SigningWorld::machO(const std::string& name, std::uint32_t cpuType, std::uint32_t infoPlistSize) const {
  constexpr std::uint32_t codeSize = 12288;
  const std::uint64_t textSize = codeSize + infoPlistSize;
  constexpr std::uint64_t linkEditSize = 120;
  Bytes bytes;
  for (const std::uint32_t field : {0xFEEDFACFU, cpuType, 3U, 2U, 2U, 224U, 0U, 0U})
    appendInteger(bytes, field, little);
  appendSegment(bytes, "__TEXT", 0, textSize, 1);
  appendName(bytes, infoPlistSize > 0 ? "__info_plist" : "__text");
  appendName(bytes, "__TEXT");
  for (const std::uint64_t field : {std::uint64_t{0}, textSize - codeSize}) appendInteger(bytes, field, little);
  appendInteger(bytes, codeSize, little);
  bytes.resize(bytes.size() + 28);
  appendSegment(bytes, "__LINKEDIT", textSize, linkEditSize);
  bytes.resize(textSize + linkEditSize, 0x90);
  std::fill(bytes.begin() + 256, bytes.begin() + 4096, std::uint8_t{0});
  write(path(name), textOf(bytes));
  return path(name);
}

codesigning::SigningRequest SigningWorld::request() const {
  codesigning::SigningRequest request;
  request.identity = &maker().identity;
  request.replacesSignature = true;
  return request;
}

void SigningWorld::sign(const std::string& path, const codesigning::SigningRequest& request) const {
  const auto done = codesigning::signCode(path, request);
  ASSERT_TRUE(done) << done.error();
}

OSStatus SigningWorld::check(const std::string& path, std::string_view requirement, const Anchors& anchors) const {
  const PosixCodeSecurity security([](std::string_view macPath) { return std::string(macPath); }, anchors);
  const auto code = security.staticCode(URL::fileURL(path));
  if (!code) return code.error();
  if (requirement.empty()) return security.checkValidity(*code, nullptr).status;
  const auto compiled = security.requirement(requirement);
  if (!compiled) return compiled.error();
  const auto validity = security.checkValidity(*code, &*compiled);
  EXPECT_EQ(validity.error.has_value(), validity.status != errSecSuccess);
  EXPECT_EQ(validity.error ? validity.error->code() : 0, validity.status);
  return validity.status;
}

void write(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void append(const std::string& path, std::string_view bytes) {
  write(path, read(path).append(bytes));
}

void flip(const std::string& path, std::int64_t offset) {
  std::string bytes = read(path);
  if (offset < 0) offset += static_cast<std::int64_t>(bytes.size());
  bytes.at(static_cast<std::size_t>(offset)) ^= 1;
  write(path, bytes);
}

void flipAt(const std::string& path, std::string_view text) {
  const std::size_t offset = read(path).find(text);
  ASSERT_NE(offset, std::string::npos);
  flip(path, static_cast<std::int64_t>(offset));
}

std::uint64_t codeEnd(const std::string& image) {
  return DiskImageTrailer::read(opened(image))->value().signatureOffset();
}

SignatureParts signatureOf(const std::string& image) {
  const InputFile file = opened(image);
  const auto bytes = diskImageSignature(file, DiskImageTrailer::read(file)->value());
  return partsOf(SuperBlob::parse(*bytes).value()).value();
}

void replaceSignature(const std::string& image, const Bytes& superBlob) {
  const InputFile file = opened(image);
  auto trailer = DiskImageTrailer::read(file)->value();
  const std::string code = read(image).substr(0, trailer.signatureOffset());
  trailer.setSignature(trailer.signatureOffset(), superBlob.size());
  write(image, code + std::string(textOf(superBlob)) + std::string(textOf(trailer.bytes())));
}

std::string fatOf(std::initializer_list<std::string> slicePaths) {
  constexpr std::size_t page = 16384;
  Bytes header;
  appendInteger(header, std::uint32_t{0xCAFEBABE});
  appendInteger(header, static_cast<std::uint32_t>(slicePaths.size()));
  std::string slices;
  for (const auto& path : slicePaths) {
    const std::string slice = read(path);
    slices.resize((slices.size() + page - 1) / page * page);
    const auto type = integerAt<std::uint32_t>(viewOf(slice), 4, ByteOrder::littleEndian).value();
    for (const std::size_t field :
         {std::size_t{type}, std::size_t{3}, page + slices.size(), slice.size(), std::size_t{14}}) {
      appendInteger(header, static_cast<std::uint32_t>(field));
    }
    slices += slice;
  }
  header.resize(page);
  return std::string(textOf(header)) + slices;
}

}  // namespace codesignature_tests
