// Containers: their key pairs (a signing pair and an encryption pair, both
// SM2 or both RSA), certificates, and every operation with a private key.
// Private keys are used only on a handle whose application has the user PIN
// verified; they are unwrapped once per container handle.
#include <cstring>
#include <vector>

#include <openssl/rsa.h>

#include "entry.hpp"

using namespace softkey;

namespace {

constexpr ULONG kMaxCertificate = 65536;

ULONG ReadContainerName(const char *p, std::string_view &out) {
  switch (ReadText(p, kMaxContainerName, out)) {
    case Text::kNull:
      return SAR_INVALIDPARAMERR;
    case Text::kOk:
      return SAR_OK;
    default:
      return SAR_NAMELENERR;
  }
}

ULONG NeedUser(const AppObj &a) { return a.role == kRoleUser ? SAR_OK : SAR_USER_NOT_LOGGED_IN; }

// The private key of one of the container's pairs, of the given algorithm.
ULONG PrivateKey(ConRef &c, bool sign, uint32_t alg, EVP_PKEY *&out) {
  ZEPH_TRY(NeedUser(*c.app_obj));
  const std::optional<KeyPair> &kp = sign ? c.con->sign : c.con->enc;
  ZEPH_ENSURE(kp.has_value(), SAR_KEYNOTFOUNTERR);
  ZEPH_ENSURE(kp->alg == alg, SAR_KEYINFOTYPEERR);
  KeyCache &cache = sign ? c.obj->sign_cache : c.obj->enc_cache;
  if (!cache.key || cache.wrapped != kp->wrapped) {
    cache.key = UnwrapKeyPair(*kp, c.app_obj->master.span());
    cache.wrapped = kp->wrapped;
    ZEPH_ENSURE(cache.key != nullptr, SAR_FILEERR);  // wrapped under another master key: a damaged device
  }
  out = cache.key.get();
  return SAR_OK;
}

ULONG StoreKey(const ConRef &c, bool sign, EVP_PKEY *key) {
  KeyPair kp;
  ZEPH_ENSURE(WrapKeyPair(key, c.app_obj->master.span(), kp), SAR_FAIL);
  const ULONG type = kp.alg == SGD_RSA ? CONTAINER_TYPE_RSA : CONTAINER_TYPE_ECC;
  return Change(c.obj->dir, [&](Device &dev) -> ULONG {
    Container *con = ContainerIn(dev, *c.obj);
    ZEPH_ENSURE(con != nullptr, SAR_INVALIDHANDLEERR);
    // One container holds one kind of key.
    ZEPH_ENSURE(con->Type() == CONTAINER_TYPE_EMPTY || con->Type() == type, SAR_KEYINFOTYPEERR);
    (sign ? con->sign : con->enc) = std::move(kp);
    return SAR_OK;
  });
}

// C1 must be a point written as the blob layout says: right-aligned values,
// zero upper halves.
ULONG EccDecryptBlob(EVP_PKEY *k, const ECCCIPHERBLOB *b, SecureBytes &plain) {
  static const uint8_t kZero[32] = {};
  ZEPH_ENSURE(std::memcmp(b->XCoordinate, kZero, 32) == 0 && std::memcmp(b->YCoordinate, kZero, 32) == 0,
              SAR_INDATAERR);
  const ByteSpan x(b->XCoordinate + 32, 32), y(b->YCoordinate + 32, 32);
  ZEPH_ENSURE(Sm2OnCurve(x, y), SAR_INDATAERR);
  ZEPH_ENSURE(Sm2Decrypt(k, x, y, ByteSpan(b->HASH, 32), ByteSpan(b->Cipher, b->CipherLen), plain),
              SAR_HASHNOTEQUALERR);
  return SAR_OK;
}

ULONG EccSign(ConRef &c, ByteSpan e, ECCSIGNATUREBLOB *out) {
  EVP_PKEY *k = nullptr;
  ZEPH_TRY(PrivateKey(c, true, SGD_SM2_1, k));
  ECCSIGNATUREBLOB sig;
  std::memset(&sig, 0, sizeof sig);
  ZEPH_ENSURE(Sm2SignDigest(k, e, sig.r + 32, sig.s + 32), SAR_FAIL);
  std::memcpy(out, &sig, sizeof sig);
  return SAR_OK;
}

// PKCS#1 v1.5 signature over the caller's bytes (a DigestInfo).
ULONG RsaSign(HCONTAINER h, const BYTE *data, ULONG len, BYTE *sig, ULONG *sig_len) {
  ConRef c;
  ZEPH_TRY(ResolveContainer(h, c));
  ZEPH_ENSURE(data != nullptr && len != 0 && sig_len != nullptr, SAR_INVALIDPARAMERR);
  EVP_PKEY *k = nullptr;
  ZEPH_TRY(PrivateKey(c, true, SGD_RSA, k));
  const ULONG kb = RsaBits(k) / 8;
  ZEPH_ENSURE(len <= kb - 11, SAR_INDATALENERR);
  if (sig == nullptr || *sig_len < kb) return PutBytes(Bytes(kb), sig, sig_len);
  Bytes out;
  ZEPH_ENSURE(RsaSignPkcs1(k, ByteSpan(data, len), out), SAR_FAIL);
  return PutBytes(out, sig, sig_len);
}

ULONG GenRsa(HCONTAINER h, ULONG bits, RSAPUBLICKEYBLOB *pBlob) {
  ConRef c;
  ZEPH_TRY(ResolveContainer(h, c));
  ZEPH_ENSURE(pBlob != nullptr, SAR_INVALIDPARAMERR);
  ZEPH_ENSURE(bits == 1024 || bits == 2048, SAR_RSAMODULUSLENERR);
  ZEPH_TRY(NeedUser(*c.app_obj));
  ZEPH_ENSURE(c.con->Type() != CONTAINER_TYPE_ECC, SAR_KEYINFOTYPEERR);
  EvpPkeyPtr key = RsaGenerate(bits);
  ZEPH_ENSURE(key != nullptr, SAR_GENRSAKEYERR);
  RSAPUBLICKEYBLOB blob;
  ZEPH_ENSURE(ToRsaBlob(key.get(), blob), SAR_GENRSAKEYERR);
  ZEPH_TRY(StoreKey(c, true, key.get()));
  std::memcpy(pBlob, &blob, sizeof blob);
  return SAR_OK;
}

}  // namespace

extern "C" {

ULONG SKF_CreateContainer(HAPPLICATION hApplication, LPSTR szContainerName, HCONTAINER *phContainer) {
  return Call("SKF_CreateContainer", H(hApplication), phContainer, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    std::string_view name;
    ZEPH_TRY(ReadContainerName(szContainerName, name));
    ZEPH_ENSURE(phContainer != nullptr, SAR_INVALIDPARAMERR);
    ZEPH_TRY(NeedUser(*a.obj));
    Container con;
    con.name = std::string(name);
    con.id = RandomId();
    ZEPH_TRY(Change(a.obj->dir, [&](Device &dev) -> ULONG {
      Application *app = AppIn(dev, *a.obj);
      ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
      ZEPH_ENSURE(app->FindContainer(name) == nullptr, SAR_FILE_ALREADY_EXIST);
      ZEPH_ENSURE(app->containers.size() < kMaxContainers, SAR_REACH_MAX_CONTAINER_COUNT);
      app->containers.push_back(con);
      return SAR_OK;
    }));
    *phContainer = AddContainerHandle(a.obj->dir, a.obj->app_id, con.id, hApplication);
    return SAR_OK;
  });
}

ULONG SKF_DeleteContainer(HAPPLICATION hApplication, LPSTR szContainerName) {
  return Call("SKF_DeleteContainer", H(hApplication), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    std::string_view name;
    ZEPH_TRY(ReadContainerName(szContainerName, name));
    ZEPH_TRY(NeedUser(*a.obj));
    return Change(a.obj->dir, [&](Device &dev) -> ULONG {
      Application *app = AppIn(dev, *a.obj);
      ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
      Container *con = app->FindContainer(name);
      ZEPH_ENSURE(con != nullptr, SAR_FILE_NOT_EXIST);
      app->containers.erase(app->containers.begin() + (con - app->containers.data()));
      return SAR_OK;
    });
  });
}

ULONG SKF_OpenContainer(HAPPLICATION hApplication, LPSTR szContainerName, HCONTAINER *phContainer) {
  return Call("SKF_OpenContainer", H(hApplication), phContainer, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    std::string_view name;
    ZEPH_TRY(ReadContainerName(szContainerName, name));
    ZEPH_ENSURE(phContainer != nullptr, SAR_INVALIDPARAMERR);
    const Container *con = a.app->FindContainer(name);
    ZEPH_ENSURE(con != nullptr, SAR_FILE_NOT_EXIST);
    *phContainer = AddContainerHandle(a.obj->dir, a.obj->app_id, con->id, hApplication);
    return SAR_OK;
  });
}

ULONG SKF_CloseContainer(HCONTAINER hContainer) {
  return Call("SKF_CloseContainer", H(hContainer), nullptr, [&] { return CloseAs<ContainerObj>(hContainer); });
}

ULONG SKF_EnumContainer(HAPPLICATION hApplication, LPSTR szContainerName, ULONG *pulSize) {
  return Call("SKF_EnumContainer", H(hApplication), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    return PutNamesOf(a.app->containers, szContainerName, pulSize);
  });
}

ULONG SKF_GetConProperty(HCONTAINER hContainer, ULONG *pulConProperty) {
  return Call("SKF_GetConProperty", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pulConProperty != nullptr, SAR_INVALIDPARAMERR);
    *pulConProperty = c.con->Type();
    return SAR_OK;
  });
}

ULONG SKF_ImportCertificate(HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbCert, ULONG ulCertLen) {
  return Call("SKF_ImportCertificate", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pbCert != nullptr && ulCertLen != 0, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(ulCertLen <= kMaxCertificate, SAR_INDATALENERR);
    ZEPH_TRY(NeedUser(*c.app_obj));
    const Bytes der(pbCert, pbCert + ulCertLen);
    ZEPH_ENSURE(IsCertificate(der), SAR_INVALIDPARAMERR);
    return Change(c.obj->dir, [&](Device &dev) -> ULONG {
      Container *con = ContainerIn(dev, *c.obj);
      ZEPH_ENSURE(con != nullptr, SAR_INVALIDHANDLEERR);
      (bSignFlag != FALSE ? con->sign_cert : con->enc_cert) = der;
      return SAR_OK;
    });
  });
}

ULONG SKF_ExportCertificate(HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbCert, ULONG *pulCertLen) {
  return Call("SKF_ExportCertificate", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pulCertLen != nullptr, SAR_INVALIDPARAMERR);
    const Bytes &der = bSignFlag != FALSE ? c.con->sign_cert : c.con->enc_cert;
    ZEPH_ENSURE(!der.empty(), SAR_CERTNOTFOUNTERR);
    return PutBytes(der, pbCert, pulCertLen);
  });
}

ULONG SKF_ExportPublicKey(HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbBlob, ULONG *pulBlobLen) {
  return Call("SKF_ExportPublicKey", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pulBlobLen != nullptr, SAR_INVALIDPARAMERR);
    const std::optional<KeyPair> &kp = bSignFlag != FALSE ? c.con->sign : c.con->enc;
    ZEPH_ENSURE(kp.has_value(), SAR_KEYNOTFOUNTERR);
    if (kp->alg == SGD_SM2_1) {
      ECCPUBLICKEYBLOB blob;
      ToEccBlob(kp->pub, blob);
      return PutBytes(ByteSpan(reinterpret_cast<const uint8_t *>(&blob), sizeof blob), pbBlob, pulBlobLen);
    }
    RSAPUBLICKEYBLOB blob;
    EvpPkeyPtr pub = RsaFromPublicDer(kp->pub);
    ZEPH_ENSURE(pub != nullptr && ToRsaBlob(pub.get(), blob), SAR_FILEERR);
    return PutBytes(ByteSpan(reinterpret_cast<const uint8_t *>(&blob), sizeof blob), pbBlob, pulBlobLen);
  });
}

ULONG SKF_GenECCKeyPair(HCONTAINER hContainer, ULONG ulAlgId, ECCPUBLICKEYBLOB *pBlob) {
  return Call("SKF_GenECCKeyPair", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pBlob != nullptr && ulAlgId == SGD_SM2_1, SAR_INVALIDPARAMERR);
    ZEPH_TRY(NeedUser(*c.app_obj));
    ZEPH_ENSURE(c.con->Type() != CONTAINER_TYPE_RSA, SAR_KEYINFOTYPEERR);
    EvpPkeyPtr key = Sm2Generate();
    Bytes point;
    ZEPH_ENSURE(key != nullptr && Sm2Point(key.get(), point), SAR_FAIL);
    ZEPH_TRY(StoreKey(c, true, key.get()));
    ToEccBlob(point, *pBlob);
    return SAR_OK;
  });
}

ULONG SKF_GenRSAKeyPair(HCONTAINER hContainer, ULONG ulBitsLen, RSAPUBLICKEYBLOB *pBlob) {
  return Call("SKF_GenRSAKeyPair", H(hContainer), nullptr,
              [&]() -> ULONG { return GenRsa(hContainer, ulBitsLen, pBlob); });
}

ULONG SKF_ImportECCKeyPair(HCONTAINER hContainer, ENVELOPEDKEYBLOB *pEnvelopedKeyBlob) {
  return Call("SKF_ImportECCKeyPair", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    const ENVELOPEDKEYBLOB *env = pEnvelopedKeyBlob;
    ZEPH_ENSURE(env != nullptr && env->Version == 1 && env->ulBits == 256, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(env->ulSymmAlgID == SGD_SM4_ECB, SAR_NOTSUPPORTYETERR);
    ZEPH_ENSURE(env->ECCCipherBlob.CipherLen == 16, SAR_INDATALENERR);  // an SM4 key
    // The pair arrives wrapped for the container's signing key.
    EVP_PKEY *wrapping = nullptr;
    ZEPH_TRY(PrivateKey(c, true, SGD_SM2_1, wrapping));
    Bytes point;
    ZEPH_ENSURE(FromEccBlob(env->PubKey, point), SAR_INDATAERR);
    SecureBytes symm;
    ZEPH_TRY(EccDecryptBlob(wrapping, &env->ECCCipherBlob, symm));
    ZEPH_ENSURE(symm.size() == 16, SAR_INDATAERR);
    // The plaintext is the 64-byte private key field: zero upper half, then d.
    SecureBytes field(64);
    ZEPH_ENSURE(Sm4EcbUnpadded(false, symm.span(), ByteSpan(env->cbEncryptedPriKey, 64), field.data()), SAR_FAIL);
    static const uint8_t kZero[32] = {};
    ZEPH_ENSURE(CRYPTO_memcmp(field.data(), kZero, 32) == 0, SAR_INDATAERR);
    EvpPkeyPtr key = Sm2FromScalar(field.span().subspan(32));
    Bytes derived;
    ZEPH_ENSURE(key != nullptr && Sm2Point(key.get(), derived) && derived == point, SAR_INDATAERR);
    return StoreKey(c, false, key.get());
  });
}

ULONG SKF_ImportRSAKeyPair(HCONTAINER hContainer, ULONG ulSymAlgId, BYTE *pbWrappedKey, ULONG ulWrappedKeyLen,
                           BYTE *pbEncryptedData, ULONG ulEncryptedDataLen) {
  return Call("SKF_ImportRSAKeyPair", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pbWrappedKey != nullptr && pbEncryptedData != nullptr, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(ulSymAlgId == SGD_SM4_ECB, SAR_NOTSUPPORTYETERR);
    EVP_PKEY *wrapping = nullptr;
    ZEPH_TRY(PrivateKey(c, true, SGD_RSA, wrapping));
    ZEPH_ENSURE(ulWrappedKeyLen == RsaBits(wrapping) / 8, SAR_INDATALENERR);
    ZEPH_ENSURE(ulEncryptedDataLen != 0 && ulEncryptedDataLen % 16 == 0 && ulEncryptedDataLen <= 4096,
                SAR_INDATALENERR);
    SecureBytes symm;
    ZEPH_ENSURE(RsaDecrypt(wrapping, RSA_PKCS1_PADDING, ByteSpan(pbWrappedKey, ulWrappedKeyLen), symm), SAR_RSADECERR);
    ZEPH_ENSURE(symm.size() == 16, SAR_INDATAERR);
    // DER RSAPrivateKey, padded (PKCS#5) or not.
    SecureBytes der(ulEncryptedDataLen);
    ZEPH_ENSURE(Sm4EcbUnpadded(false, symm.span(), ByteSpan(pbEncryptedData, ulEncryptedDataLen), der.data()),
                SAR_FAIL);
    EvpPkeyPtr key = RsaFromPrivateDer(der.span());
    const uint8_t pad = der[der.size() - 1];
    if (key == nullptr && pad >= 1 && pad <= 16) key = RsaFromPrivateDer(der.span().first(der.size() - pad));
    ZEPH_ENSURE(key != nullptr, SAR_INDATAERR);
    ZEPH_ENSURE(RsaBits(key.get()) == 1024 || RsaBits(key.get()) == 2048, SAR_RSAMODULUSLENERR);
    return StoreKey(c, false, key.get());
  });
}

ULONG SKF_ECCSignData(HCONTAINER hContainer, BYTE *pbDigest, ULONG ulDigestLen, ECCSIGNATUREBLOB *pSignature) {
  return Call("SKF_ECCSignData", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pbDigest != nullptr && pSignature != nullptr, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(ulDigestLen == 32, SAR_INDATALENERR);
    return EccSign(c, ByteSpan(pbDigest, 32), pSignature);
  });
}

ULONG SKF_RSASignData(HCONTAINER hContainer, BYTE *pbData, ULONG ulDataLen, BYTE *pbSignature, ULONG *pulSignLen) {
  return Call("SKF_RSASignData", H(hContainer), nullptr,
              [&]() -> ULONG { return RsaSign(hContainer, pbData, ulDataLen, pbSignature, pulSignLen); });
}

}  // extern "C"

// The vendor extensions; the library without extensions leaves them out.
#ifndef ZEPH_SOFTKEY_NO_EXT

namespace {

constexpr ULONG kMaxEccCipher = 65536;
constexpr size_t kEccCipherHeader = offsetof(ECCCIPHERBLOB, Cipher);

// Decryption uses the encryption pair, or the signing pair of a container
// that has no encryption pair.
bool DecryptWithSign(const Container &c) { return !c.enc.has_value(); }

}  // namespace

extern "C" {

ULONG SKF_Ex_GenRSAKeyPair(HCONTAINER hContainer, ULONG ulBitsLen, RSAPUBLICKEYBLOB *pBlob) {
  return Call("SKF_Ex_GenRSAKeyPair", H(hContainer), nullptr,
              [&]() -> ULONG { return GenRsa(hContainer, ulBitsLen, pBlob); });
}

// The flag's meaning varies between vendors; here it changes nothing.
ULONG SKF_Ex_RSASignData(HCONTAINER hContainer, ULONG ulFlag, BYTE *pbData, ULONG ulDataLen, BYTE *pbSignature,
                         ULONG *pulSignLen) {
  return Call("SKF_Ex_RSASignData", H(hContainer), nullptr,
              [&]() -> ULONG { return RsaSign(hContainer, pbData, ulDataLen, pbSignature, pulSignLen); });
}

// The extra parameter is accepted and left untouched.
ULONG SKF_Eu_RSASignData(HCONTAINER hContainer, BYTE *pbData, ULONG ulDataLen, BYTE *pbSignature, ULONG *pulSignLen,
                         ULONG *pulExtra) {
  return Call("SKF_Eu_RSASignData", H(hContainer), nullptr,
              [&]() -> ULONG { return RsaSign(hContainer, pbData, ulDataLen, pbSignature, pulSignLen); });
}

ULONG SKF_Eu_ECCSignData(HCONTAINER hContainer, BYTE *pbData, ULONG ulDataLen, ECCSIGNATUREBLOB *pSignature) {
  return Call("SKF_Eu_ECCSignData", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE((pbData != nullptr || ulDataLen == 0) && pSignature != nullptr, SAR_INVALIDPARAMERR);
    EVP_PKEY *k = nullptr;
    ZEPH_TRY(PrivateKey(c, true, SGD_SM2_1, k));  // the statuses of a missing key or login first
    // e = SM3(Z || M) with the default identity and the signing public key.
    uint8_t z[32], e[32];
    unsigned int n = 0;
    zeph::EvpMdCtxPtr md(EVP_MD_CTX_new());
    ZEPH_ENSURE(Sm2Z(c.con->sign->pub, kDefaultId, z) && md && EVP_DigestInit_ex(md.get(), EVP_sm3(), nullptr) == 1 &&
                    EVP_DigestUpdate(md.get(), z, 32) == 1 &&
                    (ulDataLen == 0 || EVP_DigestUpdate(md.get(), pbData, ulDataLen) == 1) &&
                    EVP_DigestFinal_ex(md.get(), e, &n) == 1,
                SAR_HASHERR);
    return EccSign(c, ByteSpan(e, 32), pSignature);
  });
}

// Modes 1, 2 and 50 all return the whole decrypted block, padding included;
// the caller removes the padding.
ULONG SKF_RSADecrypt(HCONTAINER hContainer, BYTE *pbIn, ULONG ulInLen, BYTE *pbOut, ULONG *pulOutLen, ULONG ulMode) {
  return Call("SKF_RSADecrypt", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pbIn != nullptr && pulOutLen != nullptr, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(ulMode == 1 || ulMode == 2 || ulMode == 50, SAR_INVALIDPARAMERR);
    EVP_PKEY *k = nullptr;
    ZEPH_TRY(PrivateKey(c, DecryptWithSign(*c.con), SGD_RSA, k));
    const ULONG kb = RsaBits(k) / 8;
    ZEPH_ENSURE(ulInLen == kb, SAR_INDATALENERR);
    if (pbOut == nullptr || *pulOutLen < kb) return PutBytes(Bytes(kb), pbOut, pulOutLen);
    SecureBytes block;
    ZEPH_ENSURE(RsaDecrypt(k, RSA_NO_PADDING, ByteSpan(pbIn, ulInLen), block), SAR_RSADECERR);
    return PutBytes(block.span(), pbOut, pulOutLen);
  });
}

ULONG SKF_ECCDecrypt(HCONTAINER hContainer, BOOL bSignFlag, ECCCIPHERBLOB *pCipherText, BYTE *pbPlainText,
                     ULONG *pulPlainTextLen) {
  return Call("SKF_ECCDecrypt", H(hContainer), nullptr, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pCipherText != nullptr && pulPlainTextLen != nullptr, SAR_INVALIDPARAMERR);
    const ULONG len = pCipherText->CipherLen;
    ZEPH_ENSURE(len != 0 && len <= kMaxEccCipher, SAR_INDATALENERR);
    EVP_PKEY *k = nullptr;
    ZEPH_TRY(PrivateKey(c, bSignFlag != FALSE, SGD_SM2_1, k));
    if (pbPlainText == nullptr || *pulPlainTextLen < len) return PutBytes(Bytes(len), pbPlainText, pulPlainTextLen);
    SecureBytes plain;
    ZEPH_TRY(EccDecryptBlob(k, pCipherText, plain));
    return PutBytes(plain.span(), pbPlainText, pulPlainTextLen);
  });
}

// A session key wrapped for the container: an ECCCIPHERBLOB for SM2, a
// PKCS#1 v1.5 block for RSA.
ULONG SKF_ImportSessionKey(HCONTAINER hContainer, ULONG ulAlgId, BYTE *pbWrapedData, ULONG ulWrapedLen, HANDLE *phKey) {
  return Call("SKF_ImportSessionKey", H(hContainer), phKey, [&]() -> ULONG {
    ConRef c;
    ZEPH_TRY(ResolveContainer(hContainer, c));
    ZEPH_ENSURE(pbWrapedData != nullptr && phKey != nullptr, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(IsSymmAlg(ulAlgId), SAR_NOTSUPPORTYETERR);
    const bool with_sign = DecryptWithSign(*c.con);
    SecureBytes key;
    EVP_PKEY *k = nullptr;
    switch (c.con->Type()) {
      case CONTAINER_TYPE_ECC: {
        ZEPH_ENSURE(ulWrapedLen >= kEccCipherHeader, SAR_INDATALENERR);
        const auto *blob = reinterpret_cast<const ECCCIPHERBLOB *>(pbWrapedData);
        ZEPH_ENSURE(blob->CipherLen != 0 && uint64_t{kEccCipherHeader} + blob->CipherLen <= ulWrapedLen,
                    SAR_INDATALENERR);
        ZEPH_TRY(PrivateKey(c, with_sign, SGD_SM2_1, k));
        ZEPH_TRY(EccDecryptBlob(k, blob, key));
        break;
      }
      case CONTAINER_TYPE_RSA:
        ZEPH_TRY(PrivateKey(c, with_sign, SGD_RSA, k));
        ZEPH_ENSURE(ulWrapedLen == RsaBits(k) / 8, SAR_INDATALENERR);
        ZEPH_ENSURE(RsaDecrypt(k, RSA_PKCS1_PADDING, ByteSpan(pbWrapedData, ulWrapedLen), key), SAR_RSADECERR);
        break;
      default:
        return SAR_KEYNOTFOUNTERR;
    }
    ZEPH_ENSURE(key.size() == 16, SAR_INDATAERR);
    *phKey = NewSymmKey(c.obj->dir, ulAlgId, key.span(), hContainer);
    return SAR_OK;
  });
}

}  // extern "C"

#endif  // ZEPH_SOFTKEY_NO_EXT
