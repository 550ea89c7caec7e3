// Owners of the TLS, time-stamp and PKCS#7 objects of the PKI services.
#pragma once

#include <memory>

#include <openssl/ocsp.h>
#include <openssl/pkcs7.h>
#include <openssl/ssl.h>
#include <openssl/ts.h>
#include <openssl/x509_vfy.h>

#include "foundation/owned.hpp"
#include "zeph_c_p7.h"

namespace zeph {

using SslCtxPtr = std::unique_ptr<SSL_CTX, Free<SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, Free<SSL_free>>;
using X509StorePtr = std::unique_ptr<X509_STORE, Free<X509_STORE_free>>;
using Pkcs7Ptr = std::unique_ptr<PKCS7, Free<PKCS7_free>>;
using TsReqPtr = std::unique_ptr<TS_REQ, Free<TS_REQ_free>>;
using TsRespPtr = std::unique_ptr<TS_RESP, Free<TS_RESP_free>>;
using TsMsgImprintPtr = std::unique_ptr<TS_MSG_IMPRINT, Free<TS_MSG_IMPRINT_free>>;
using TsVerifyCtxPtr = std::unique_ptr<TS_VERIFY_CTX, Free<TS_VERIFY_CTX_free>>;
using X509AlgorPtr = std::unique_ptr<X509_ALGOR, Free<X509_ALGOR_free>>;
using Asn1IntegerPtr = std::unique_ptr<ASN1_INTEGER, Free<ASN1_INTEGER_free>>;
using Asn1ObjectPtr = std::unique_ptr<ASN1_OBJECT, Free<ASN1_OBJECT_free>>;
using Asn1StringPtr = std::unique_ptr<ASN1_STRING, Free<ASN1_STRING_free>>;
using Sm2SignPtr = std::unique_ptr<SM2_Sign, Free<SM2_Sign_free>>;

// Certificates, requests, revocation lists and OCSP messages.
using X509CrlPtr = std::unique_ptr<X509_CRL, Free<X509_CRL_free>>;
using X509NamePtr = std::unique_ptr<X509_NAME, Free<X509_NAME_free>>;
using X509ReqPtr = std::unique_ptr<X509_REQ, Free<X509_REQ_free>>;
using X509StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Free<X509_STORE_CTX_free>>;
using X509ExtensionPtr = std::unique_ptr<X509_EXTENSION, Free<X509_EXTENSION_free>>;
using Pkcs8InfoPtr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, Free<PKCS8_PRIV_KEY_INFO_free>>;
using OcspRequestPtr = std::unique_ptr<OCSP_REQUEST, Free<OCSP_REQUEST_free>>;
using OcspResponsePtr = std::unique_ptr<OCSP_RESPONSE, Free<OCSP_RESPONSE_free>>;
using OcspBasicRespPtr = std::unique_ptr<OCSP_BASICRESP, Free<OCSP_BASICRESP_free>>;
using OcspCertIdPtr = std::unique_ptr<OCSP_CERTID, Free<OCSP_CERTID_free>>;
// Bytes that OpenSSL allocated (i2d_* output).
inline void FreeOpenSsl(void *p) noexcept { OPENSSL_free(p); }
template <class T>
using OpenSslPtr = std::unique_ptr<T, Free<FreeOpenSsl>>;
inline void FreeX509Stack(STACK_OF(X509) * s) noexcept { sk_X509_pop_free(s, X509_free); }
using X509StackPtr = std::unique_ptr<STACK_OF(X509), Free<FreeX509Stack>>;

}  // namespace zeph
