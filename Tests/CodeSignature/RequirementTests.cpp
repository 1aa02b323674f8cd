#include "CodeSignature/Requirement.h"
#include "CodeSignature/RequirementEvaluator.h"
#include "SigningWorld.h"

#include <gtest/gtest.h>

namespace codesignature_tests {
namespace {

using namespace platform;
using namespace platform::codesignature;

TEST(RequirementLanguage, CompilesWhatThePlatformCompiles) {
  const std::vector<std::string> texts = {
      makersRequirement,
      "    anchor apple generic\n    and certificate leaf[subject.OU] = \"K4TQ9Z7M2P\"    and info [CFBundleVersion] "
      ">= \"1.2.3\"",
      "info [ k ]",
      "info[\"My_Key\"] exists",
      "info[k] = x.1.2",
      "info[k] = 0x4142",
      "info[k] = \"true\"",
      "info[\"leaf\"]",
      "info[k] = *\"a\"*",
      "info[k] ~ a",
      "info[k] = \"say \\\"hi\\\"\"",
      "info[k] = \"Wörter\"",
      "identifier \"com.a-b\"",
      "identifier = com.corvane.Orvik;;",
      "cdhash H\"0123456789abcdef0123456789ABCDEF01234567\"",
      "anchor H\"0123456789abcdef0123456789abcdef01234567\"",
      "cert 1 = H\"0123456789abcdef0123456789abcdef01234567\"",
      "cert leaf[subject.CN] and certificate root[subject.O] exists",
      "certificate -1 trusted or anchor trusted or cert trusted",
      "certificate leaf[subject.XX] = \"a\"",
      "certificate leaf[timestamp.1.2.3] >= timestamp \"20240131235959Z\"",
      "anchor apple and anchor generic apple",
      "!(always and ! never) or true or false",
      "notarized or legacy or (named) or platform = 7",
      "always /* c */ # d\n// e\n",
      "always /* three stars ***/",
  };
  for (const auto& text : texts) {
    const auto compiled = compileRequirement(text);
    EXPECT_TRUE(compiled) << text << ": " << (compiled ? "" : compiled.error());
  }
}

TEST(RequirementLanguage, RefusesWhatThePlatformRefuses) {
  const std::vector<std::string> texts = {
      "",
      "anchor apple generic\r\nand always",
      "always\f",
      "always and",
      "always always",
      "not always",
      "anchor AND always",
      "ANCHOR apple",
      "(always",
      "always)",
      "certificate leaf[subject.OU] = 9JKQ",
      "info[k] >= 1.2.3",
      "info[k] >= 5",
      "info[k] = 0x414",
      "info[k] = H\"00\"",
      "info[k] != \"x\"",
      "info[k] => \"x\"",
      "info[k] >= \"1\"2\"",
      "info[k] = true",
      "info[My_Key]",
      "info[leaf]",
      "info[k",
      "info[k] = \"b\\c\"",
      "info[k] = \"open",
      "info[k] = 'x'",
      "identifier com.a-b",
      "identifier W\xC3\xB6rter",
      "identifier a..b",
      "cdhash H\"12\"",
      "cdhash \"abc\"",
      "certificate[subject.CN] = a",
      "certificate leaf[email] = a",
      "certificate leaf[field.]",
      "certificate leaf[\"field.\"]",
      "certificate leaf[\"field.1.2.x\"]",
      "certificate 99999999999[subject.CN]",
      "cert 1 = /missing/file",
      "designated => always",
      "always /* open",
      "always /* two stars **/",
      std::string(1000, '(') + "always" + std::string(1000, ')'),
      std::string(1000, '!') + "always",
  };
  for (const auto& text : texts) EXPECT_FALSE(compileRequirement(text)) << text;
}

TEST(RequirementLanguage, ErrorsSayWhere) {
  EXPECT_EQ(compileRequirement("always\nand >= x").error(), "line 2:5: unexpected token: >=");
  EXPECT_EQ(compileRequirement("always\r").error(), "line 1:7: unexpected char: 0x0D");
}

TEST(RequirementLanguage, ComparesTextsNumerically) {
  struct Row {
    const char* left;
    const char* right;
    int expected;
  };
  const std::vector<Row> rows = {
      {"1.10", "1.9", 1},   {"1.2", "1.2.0", -1},    {"01.02", "1.2", 0},
      {"1.2.0", "1.2", 1},  {"1.2.3b1", "1.2.3", 1}, {"1.2-rc1", "1.2.0", -1},
      {"1.2b", "1.2.9", 1}, {"v2", "10", 1},         {"", "", 0},
      {"", "0", -1},        {"0", "00", 0},          {"18446744073709551617", "2", 1},
      {"a", "B", 1},        {"\xC3\xA9", "z", 1},    {"\xF0\x9F\x98\x80", "\xEF\xBF\xBD", -1},
  };
  for (const auto& [left, right, expected] : rows) {
    const auto sign = [](int number) { return number < 0 ? -1 : number > 0 ? 1 : 0; };
    EXPECT_EQ(sign(compareNumerically(left, right)), expected) << left << " and " << right;
    EXPECT_EQ(sign(compareNumerically(right, left)), -expected) << right << " and " << left;
  }
}

struct Evaluation {
  const char* text;
  bool expected;
};

void expectAll(const std::vector<Evaluation>& rows, const RequirementSubject& subject) {
  for (const auto& [text, expected] : rows) {
    const auto compiled = compileRequirement(text);
    ASSERT_TRUE(compiled) << text;
    EXPECT_EQ(meets(subject, **compiled), expected) << text;
  }
}

TEST(RequirementLanguage, LooksIntoInfoPlist) {
  const PropertyList info = PropertyList::Dictionary{
      {"v", "1.10"}, {"n", 2}, {"yes", true}, {"no", false}, {"list", PropertyList::Array{"a", "b"}}, {"empty", ""}};
  const CertificateChain none;
  const Anchors anchors;
  const RequirementSubject subject{none, anchors, "com.corvane.Orvik", Bytes(20, 1), 0, &info, nullptr};
  expectAll({{"info[v] >= \"1.9\"", true},
             {"info[v] >= \"1.10.0\"", false},
             {"info[v] <= \"1.10\"", true},
             {"info[v] < \"1.10\"", false},
             {"info[v] > \"1.2\"", true},
             {"info[v] = \"1.10\"", true},
             {"info[v] = \"1\"*", true},
             {"info[v] = *\"10\"", true},
             {"info[v] = *\".1\"*", true},
             {"info[v] = \"0\"*", false},
             {"info[v] ~ \".\"", true},
             {"info[v] = \"\"*", false},
             {"info[n] >= \"1\"", false},
             {"info[n] = \"2\"", false},
             {"info[n]", true},
             {"info[yes]", true},
             {"info[no]", false},
             {"info[no] absent", false},
             {"info[missing]", false},
             {"info[missing] absent", true},
             {"info[missing] >= \"0\"", false},
             {"info[list] = b", true},
             {"info[list] = c", false},
             {"info[empty] >= \"\"", true},
             {"info[v] = timestamp \"20240101000000Z\"", false}},
            subject);
  expectAll({{"info[v]", false}, {"info[v] absent", true}, {"entitlement[k] absent", true}},
            {none, anchors, "", Bytes(20, 1)});
}

TEST(RequirementLanguage, LooksIntoTheChain) {
  const Maker& maker = SigningWorld::maker();
  const CertificateChain chain = maker.identity.certificates();
  const RequirementSubject subject{chain, maker.anchors, "com.corvane.Orvik", Bytes(20, 1)};
  expectAll({{"anchor apple generic", true},
             {"anchor apple", false},
             {"anchor trusted", false},
             {"identifier com.corvane.Orvik and ! identifier com.corvane.orvik", true},
             {"cdhash H\"0101010101010101010101010101010101010101\"", true},
             {"cdhash H\"0101010101010101010101010101010101010102\"", false},
             {"platform = 0", true},
             {"cert leaf[subject.OU] = K4TQ9Z7M2P and cert 0[subject.OU] = K4TQ9Z7M2P", true},
             {"cert -3[subject.OU] = K4TQ9Z7M2P", true},
             {"cert 3[subject.CN] exists or cert -4[subject.CN] exists", false},
             {"cert 3[subject.CN] absent or cert 3[field.1.2.3] absent", false},
             {"cert leaf[subject.UID] absent", false},
             {"cert 1[subject.CN] ~ \"Developer ID CA\"", true},
             {"cert root[subject.CN] ~ \"Root CA\" and anchor[subject.CN] ~ \"Root CA\"", true},
             {"cert 1[field.1.2.840.113635.100.6.2.6]", true},
             {"cert 1[field.1.2.840.113635.100.6.2.6] = \"true\"", false},
             {"cert leaf[field.1.2.840.113635.100.6.2.6]", false},
             {"cert leaf[field.1.2.840.113635.100.6.2.6] absent", true},
             {"cert leaf[field.1.3.6.1.5.5.7.3.3]", false},  // an extended key use is no extension
             {"cert leaf[timestamp.1.2.840.113635.100.6.1.33] absent", true},
             {"cert root = H\"0101010101010101010101010101010101010101\"", false},
             {"never or always and never", false},
             {"always or always and never", true}},
            subject);
}

}  // namespace
}  // namespace codesignature_tests
