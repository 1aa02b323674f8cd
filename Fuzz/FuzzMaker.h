#pragma once

#include <string>
#include <string_view>

/// Who signed what lies in the corpora, with a key that nobody has any more.
namespace fuzz {

inline constexpr std::string_view makersRoot = R"(-----BEGIN CERTIFICATE-----
MIIB4jCCAYigAwIBAgIHZOujEn/BojAKBggqhkjOPQQDAjBlMSIwIAYDVQQDDBlD
b3J2YW5lIFJlaGVhcnNhbCBSb290IENBMSAwHgYDVQQLDBdDZXJ0aWZpY2F0aW9u
IEF1dGhvcml0eTEQMA4GA1UECgwHQ29ydmFuZTELMAkGA1UEBhMCVVMwHhcNMDYx
MTI4MDE0NjAwWhcNNDYxMTE4MDE0NjAwWjBlMSIwIAYDVQQDDBlDb3J2YW5lIFJl
aGVhcnNhbCBSb290IENBMSAwHgYDVQQLDBdDZXJ0aWZpY2F0aW9uIEF1dGhvcml0
eTEQMA4GA1UECgwHQ29ydmFuZTELMAkGA1UEBhMCVVMwWTATBgcqhkjOPQIBBggq
hkjOPQMBBwNCAARlVnpabYBHRs2bIGHHOIf7YJqAV0HiM+Y9V4zxFMo+Q9qBLwPI
FhzmOOd/Un/o0UrJSP/nbIMtzbsRLcH7TQDUoyMwITAPBgNVHRMBAf8EBTADAQH/
MA4GA1UdDwEB/wQEAwIBBjAKBggqhkjOPQQDAgNIADBFAiANd544+mARilBBqf9Z
lUtN2quxM1Hc63Ms9HZHN86TIwIhAJsKZg+9e8c0I4910xJZDWLLD+/pJ4KkrYjG
jc5Eqn9b
-----END CERTIFICATE-----
)";

inline constexpr std::string_view makersRequirement =
    "anchor apple generic and certificate 1[field.1.2.840.113635.100.6.2.6]"
    " and certificate leaf[field.1.2.840.113635.100.6.1.13] and certificate leaf[subject.OU] = K4TQ9Z7M2P";

/// The code that the signatures of FuzzSignature are about.
inline std::string signedText() {
  return std::string(5000, 'x');
}

}  // namespace fuzz
