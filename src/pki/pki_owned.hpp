// Owners of the TLS, time-stamp and PKCS#7 objects of the PKI services.
#pragma once

#include <memory>

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

}  // namespace zeph
