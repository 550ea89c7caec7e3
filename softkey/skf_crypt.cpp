// Symmetric keys (SM4) with the Encrypt/Decrypt family, and digests (SM3
// with the optional Z prefix, SHA-1, SHA-256).
//
// Every step is computed on a copy of the operation's state and committed
// only when its output was delivered, so a size query or a short buffer
// leaves the operation exactly where it was.
#include <cstring>

#include "entry.hpp"

using namespace softkey;

namespace {

const EVP_CIPHER *CipherOf(ULONG alg) {
  switch (alg) {
    case SGD_SM4_ECB:
      return EVP_sm4_ecb();
    case SGD_SM4_CBC:
      return EVP_sm4_cbc();
    case SGD_SM4_CFB:
      return EVP_sm4_cfb128();
    case SGD_SM4_OFB:
      return EVP_sm4_ofb();
    default:
      return nullptr;
  }
}

ULONG Present(const Object &o) { return DevicePresence(o.dir) == Presence::kPresent ? SAR_OK : SAR_DEVICE_REMOVED; }

ULONG KeyOf(HANDLE h, KeyObj *&out) {
  out = Handles().Get<KeyObj>(h);
  ZEPH_ENSURE(out != nullptr, SAR_INVALIDHANDLEERR);
  return Present(*out);
}

ULONG Init(HANDLE h, const BLOCKCIPHERPARAM &param, bool encrypt) {
  KeyObj *k = nullptr;
  ZEPH_TRY(KeyOf(h, k));
  const bool stream = k->alg == SGD_SM4_CFB || k->alg == SGD_SM4_OFB;
  ZEPH_ENSURE(param.IVLen <= MAX_IV_LEN && param.PaddingType <= 1, SAR_INVALIDPARAMERR);
  ZEPH_ENSURE(k->alg == SGD_SM4_ECB || param.IVLen == 16, SAR_INVALIDPARAMERR);
  ZEPH_ENSURE(!(stream && param.PaddingType == 1), SAR_INVALIDPARAMERR);
  zeph::EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  ZEPH_ENSURE(ctx &&
                  EVP_CipherInit_ex(ctx.get(), CipherOf(k->alg), nullptr, k->key.data(),
                                    k->alg == SGD_SM4_ECB ? nullptr : param.IV, encrypt ? 1 : 0) == 1 &&
                  EVP_CIPHER_CTX_set_padding(ctx.get(), 0) == 1,
              SAR_FAIL);
  k->op = CipherOp{};
  k->op.active = true;
  k->op.encrypt = encrypt;
  k->op.padding = param.PaddingType == 1;
  k->op.stream = stream;
  k->op.ctx = std::move(ctx);
  return SAR_OK;
}

// One Update (last = false) or Final / one-shot (last = true) step.
ULONG Step(HANDLE h, bool encrypt, bool last, const BYTE *in, ULONG in_len, BYTE *out, ULONG *out_len) {
  KeyObj *k = nullptr;
  ZEPH_TRY(KeyOf(h, k));
  CipherOp &op = k->op;
  ZEPH_ENSURE(op.active && op.encrypt == encrypt, SAR_NOTINITIALIZEERR);
  ZEPH_ENSURE(out_len != nullptr && (in != nullptr || in_len == 0), SAR_INVALIDPARAMERR);

  Bytes buf = op.pending;
  if (in_len != 0) buf.insert(buf.end(), in, in + in_len);
  size_t take = buf.size();
  if (!op.stream) {
    if (!last) {
      take = buf.size() / 16 * 16;
      // Unpadding needs the last block at Final: hold it back.
      if (!encrypt && op.padding && take == buf.size() && take != 0) take -= 16;
    } else if (encrypt && op.padding) {
      const size_t pad = 16 - buf.size() % 16;
      buf.insert(buf.end(), pad, static_cast<uint8_t>(pad));
      take = buf.size();
    } else if (buf.size() % 16 != 0 || (!encrypt && op.padding && buf.empty())) {
      op = CipherOp{};  // a failed Final ends the operation
      return SAR_INDATALENERR;
    }
  }

  zeph::EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  ZEPH_ENSURE(ctx && EVP_CIPHER_CTX_copy(ctx.get(), op.ctx.get()) == 1, SAR_FAIL);
  Bytes result(take);
  int n = 0;
  ZEPH_ENSURE(take == 0 || EVP_CipherUpdate(ctx.get(), result.data(), &n, buf.data(), static_cast<int>(take)) == 1,
              SAR_FAIL);
  if (last && !encrypt && op.padding) {
    const uint8_t pad = result.back();
    bool good = pad >= 1 && pad <= 16;
    for (size_t i = 0; good && i < pad; ++i) good = result[result.size() - 1 - i] == pad;
    if (!good) {
      OPENSSL_cleanse(result.data(), result.size());
      op = CipherOp{};
      return SAR_DECRYPTPADERR;
    }
    result.resize(result.size() - pad);
  }

  // Deliver, then commit; a size query or a short buffer changes nothing.
  const bool deliver = out != nullptr && *out_len >= result.size();
  const ULONG rv = PutBytes(result, out, out_len);
  if (!encrypt) OPENSSL_cleanse(result.data(), result.size());
  if (!deliver || rv != SAR_OK) return rv;
  if (last) {
    op = CipherOp{};
  } else {
    op.ctx = std::move(ctx);
    op.pending.assign(buf.begin() + static_cast<std::ptrdiff_t>(take), buf.end());
  }
  return SAR_OK;
}

ULONG HashOf(HANDLE h, HashObj *&out) {
  out = Handles().Get<HashObj>(h);
  ZEPH_ENSURE(out != nullptr, SAR_INVALIDHANDLEERR);
  ZEPH_TRY(Present(*out));
  return out->finished ? SAR_NOTINITIALIZEERR : SAR_OK;
}

}  // namespace

namespace softkey {

bool IsSymmAlg(ULONG alg) { return CipherOf(alg) != nullptr; }

HANDLE NewSymmKey(const std::string &dir, ULONG alg, ByteSpan key16, HANDLE parent) {
  auto obj = std::make_unique<KeyObj>();
  obj->dir = dir;
  obj->alg = alg;
  obj->key = SecureBytes(key16.data(), key16.size());
  return Handles().Add(std::move(obj), parent);
}

}  // namespace softkey

extern "C" {

ULONG SKF_SetSymmKey(DEVHANDLE hDev, BYTE *pbKey, ULONG ulAlgID, HANDLE *phKey) {
  return Call("SKF_SetSymmKey", H(hDev), phKey, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    ZEPH_ENSURE(pbKey != nullptr && phKey != nullptr, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(IsSymmAlg(ulAlgID), SAR_NOTSUPPORTYETERR);
    *phKey = NewSymmKey(d.obj->dir, ulAlgID, ByteSpan(pbKey, 16), hDev);
    return SAR_OK;
  });
}

ULONG SKF_EncryptInit(HANDLE hKey, BLOCKCIPHERPARAM EncryptParam) {
  return Call("SKF_EncryptInit", H(hKey), nullptr, [&]() -> ULONG { return Init(hKey, EncryptParam, true); });
}

ULONG SKF_Encrypt(HANDLE hKey, BYTE *pbData, ULONG ulDataLen, BYTE *pbEncryptedData, ULONG *pulEncryptedLen) {
  return Call("SKF_Encrypt", H(hKey), nullptr,
              [&]() -> ULONG { return Step(hKey, true, true, pbData, ulDataLen, pbEncryptedData, pulEncryptedLen); });
}

ULONG SKF_EncryptUpdate(HANDLE hKey, BYTE *pbData, ULONG ulDataLen, BYTE *pbEncryptedData, ULONG *pulEncryptedLen) {
  return Call("SKF_EncryptUpdate", H(hKey), nullptr,
              [&]() -> ULONG { return Step(hKey, true, false, pbData, ulDataLen, pbEncryptedData, pulEncryptedLen); });
}

ULONG SKF_EncryptFinal(HANDLE hKey, BYTE *pbEncryptedData, ULONG *pulEncryptedDataLen) {
  return Call("SKF_EncryptFinal", H(hKey), nullptr,
              [&]() -> ULONG { return Step(hKey, true, true, nullptr, 0, pbEncryptedData, pulEncryptedDataLen); });
}

ULONG SKF_DecryptInit(HANDLE hKey, BLOCKCIPHERPARAM DecryptParam) {
  return Call("SKF_DecryptInit", H(hKey), nullptr, [&]() -> ULONG { return Init(hKey, DecryptParam, false); });
}

ULONG SKF_Decrypt(HANDLE hKey, BYTE *pbEncryptedData, ULONG ulEncryptedLen, BYTE *pbData, ULONG *pulDataLen) {
  return Call("SKF_Decrypt", H(hKey), nullptr,
              [&]() -> ULONG { return Step(hKey, false, true, pbEncryptedData, ulEncryptedLen, pbData, pulDataLen); });
}

ULONG SKF_DecryptUpdate(HANDLE hKey, BYTE *pbEncryptedData, ULONG ulEncryptedLen, BYTE *pbData, ULONG *pulDataLen) {
  return Call("SKF_DecryptUpdate", H(hKey), nullptr,
              [&]() -> ULONG { return Step(hKey, false, false, pbEncryptedData, ulEncryptedLen, pbData, pulDataLen); });
}

ULONG SKF_DecryptFinal(HANDLE hKey, BYTE *pbDecryptedData, ULONG *pulDecryptedDataLen) {
  return Call("SKF_DecryptFinal", H(hKey), nullptr,
              [&]() -> ULONG { return Step(hKey, false, true, nullptr, 0, pbDecryptedData, pulDecryptedDataLen); });
}

ULONG SKF_DigestInit(DEVHANDLE hDev, ULONG ulAlgID, ECCPUBLICKEYBLOB *pPubKey, BYTE *pbID, ULONG ulIDLen,
                     HANDLE *phHash) {
  return Call("SKF_DigestInit", H(hDev), phHash, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    ZEPH_ENSURE(phHash != nullptr, SAR_INVALIDPARAMERR);
    const EVP_MD *md = ulAlgID == SGD_SM3      ? EVP_sm3()
                       : ulAlgID == SGD_SHA1   ? EVP_sha1()
                       : ulAlgID == SGD_SHA256 ? EVP_sha256()
                                               : nullptr;
    ZEPH_ENSURE(md != nullptr, SAR_NOTSUPPORTYETERR);
    auto obj = std::make_unique<HashObj>();
    obj->dir = d.obj->dir;
    obj->md.reset(EVP_MD_CTX_new());
    ZEPH_ENSURE(obj->md && EVP_DigestInit_ex(obj->md.get(), md, nullptr) == 1, SAR_HASHOBJERR);
    if (pPubKey != nullptr) {
      // With a public key the digest starts with Z; no ID means the default one.
      ZEPH_ENSURE(ulAlgID == SGD_SM3 && (pbID != nullptr || ulIDLen == 0) && ulIDLen <= 8191, SAR_INVALIDPARAMERR);
      Bytes point;
      ZEPH_ENSURE(FromEccBlob(*pPubKey, point), SAR_INVALIDPARAMERR);
      const ByteSpan id = ulIDLen != 0 ? ByteSpan(pbID, ulIDLen) : kDefaultId;
      uint8_t z[32];
      ZEPH_ENSURE(Sm2Z(point, id, z) && EVP_DigestUpdate(obj->md.get(), z, sizeof z) == 1, SAR_HASHERR);
    }
    *phHash = Handles().Add(std::move(obj), hDev);
    return SAR_OK;
  });
}

ULONG SKF_DigestUpdate(HANDLE hHash, BYTE *pbData, ULONG ulDataLen) {
  return Call("SKF_DigestUpdate", H(hHash), nullptr, [&]() -> ULONG {
    HashObj *h = nullptr;
    ZEPH_TRY(HashOf(hHash, h));
    ZEPH_ENSURE(pbData != nullptr || ulDataLen == 0, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(ulDataLen == 0 || EVP_DigestUpdate(h->md.get(), pbData, ulDataLen) == 1, SAR_HASHERR);
    return SAR_OK;
  });
}

ULONG SKF_DigestFinal(HANDLE hHash, BYTE *pHashData, ULONG *pulHashLen) {
  return Call("SKF_DigestFinal", H(hHash), nullptr, [&]() -> ULONG {
    HashObj *h = nullptr;
    ZEPH_TRY(HashOf(hHash, h));
    ZEPH_ENSURE(pulHashLen != nullptr, SAR_INVALIDPARAMERR);
    const auto size = static_cast<ULONG>(EVP_MD_CTX_get_size(h->md.get()));
    if (pHashData == nullptr || *pulHashLen < size) return PutBytes(Bytes(size), pHashData, pulHashLen);
    unsigned int n = 0;
    ZEPH_ENSURE(EVP_DigestFinal_ex(h->md.get(), pHashData, &n) == 1, SAR_HASHERR);
    h->finished = true;
    *pulHashLen = n;
    return SAR_OK;
  });
}

ULONG SKF_CloseHandle(HANDLE hHandle) {
  return Call("SKF_CloseHandle", H(hHandle), nullptr, [&]() -> ULONG {
    const Object *o = Handles().Find(hHandle);
    ZEPH_ENSURE(o != nullptr && (o->kind == Kind::kKey || o->kind == Kind::kHash), SAR_INVALIDHANDLEERR);
    Handles().Close(hHandle);
    return SAR_OK;
  });
}

}  // extern "C"
