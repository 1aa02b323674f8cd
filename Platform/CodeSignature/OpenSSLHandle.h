#pragma once

#include <memory>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/ts.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace platform::codesignature {

/// Owns an OpenSSL object by the function that frees it.
template <class T, auto Free>
struct OpenSSLDeleter {
  void operator()(T* object) const { Free(object); }
};
template <class T, auto Free>
using OpenSSLHandle = std::unique_ptr<T, OpenSSLDeleter<T, Free>>;

using BioHandle = OpenSSLHandle<BIO, BIO_free_all>;
using CmsHandle = OpenSSLHandle<CMS_ContentInfo, CMS_ContentInfo_free>;
using ObjectHandle = OpenSSLHandle<ASN1_OBJECT, ASN1_OBJECT_free>;
using Pkcs7Handle = OpenSSLHandle<PKCS7, PKCS7_free>;
using PrivateKeyHandle = OpenSSLHandle<EVP_PKEY, EVP_PKEY_free>;
using StoreHandle = OpenSSLHandle<X509_STORE, X509_STORE_free>;
using StoreContextHandle = OpenSSLHandle<X509_STORE_CTX, X509_STORE_CTX_free>;
using TstInfoHandle = OpenSSLHandle<TS_TST_INFO, TS_TST_INFO_free>;
using VerifyContextHandle = OpenSSLHandle<TS_VERIFY_CTX, TS_VERIFY_CTX_free>;
using X509Handle = OpenSSLHandle<X509, X509_free>;

struct CertificateStackFree {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
using CertificateStack = std::unique_ptr<STACK_OF(X509), CertificateStackFree>;

}  // namespace platform::codesignature
