// Certificate fields as the texts hosts display.
#include "pki/cert_fields.hpp"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "foundation/helpers.hpp"
#include "foundation/status_flow.hpp"
#include "pki/cert_input.hpp"
#include "zeph_c_cert.h"
#include "zeph_c_status.h"

namespace zeph::pki {
namespace {

using PoliciesPtr = std::unique_ptr<CERTIFICATEPOLICIES, Free<CERTIFICATEPOLICIES_free>>;

std::string BioText(BIO *bio) {
  char *data = nullptr;
  const long n = BIO_get_mem_data(bio, &data);
  return n > 0 ? std::string(data, static_cast<size_t>(n)) : std::string();
}

std::string Trimmed(std::string s) {
  const char *blank = " \t\r\n";
  const size_t first = s.find_first_not_of(blank);
  if (first == std::string::npos) return {};
  return s.substr(first, s.find_last_not_of(blank) - first + 1);
}

// OpenSSL's own rendering of a known extension; unknown ones: a string
// value as its text, anything else its DER value in base64.
std::string ExtensionText(X509_EXTENSION *ext) {
  if (X509V3_EXT_get(ext) != nullptr) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (bio && X509V3_EXT_print(bio.get(), ext, X509V3_EXT_DEFAULT, 0) == 1) return Trimmed(BioText(bio.get()));
    ERR_clear_error();
  }
  const ASN1_OCTET_STRING *value = X509_EXTENSION_get_data(ext);
  const unsigned char *p = ASN1_STRING_get0_data(value);
  const long len = ASN1_STRING_length(value);
  Asn1StringPtr str(d2i_DISPLAYTEXT(nullptr, &p, len));
  if (!str || p != ASN1_STRING_get0_data(value) + len) {
    p = ASN1_STRING_get0_data(value);
    str.reset(d2i_DIRECTORYSTRING(nullptr, &p, len));
  }
  ERR_clear_error();
  unsigned char *utf8 = nullptr;
  if (str && p == ASN1_STRING_get0_data(value) + len) {
    const int n = ASN1_STRING_to_UTF8(&utf8, str.get());
    const OpenSslPtr<unsigned char> owner(utf8);
    if (n >= 0) return std::string(reinterpret_cast<char *>(utf8), static_cast<size_t>(n));
  }
  return Base64Text({ASN1_STRING_get0_data(value), static_cast<size_t>(len)});
}

uint32_t ExtensionByNid(X509 *cert, int nid, std::string *out) {
  const int at = X509_get_ext_by_NID(cert, nid, -1);
  if (at < 0) return ERR_CERT_ITEM_NOT_FOUND;
  *out = ExtensionText(X509_get_ext(cert, at));
  return 0;
}

// Every entry of one type, joined by ", ".
uint32_t NameEntries(const X509_NAME *name, int nid, std::string *out) {
  std::string text;
  for (int at = X509_NAME_get_index_by_NID(name, nid, -1); at >= 0; at = X509_NAME_get_index_by_NID(name, nid, at)) {
    unsigned char *utf8 = nullptr;
    const int n = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at)));
    const OpenSslPtr<unsigned char> owner(utf8);
    if (n < 0) continue;
    if (!text.empty()) text += ", ";
    text.append(reinterpret_cast<char *>(utf8), static_cast<size_t>(n));
  }
  ERR_clear_error();
  if (text.empty()) return ERR_CERT_ITEM_NOT_FOUND;
  *out = std::move(text);
  return 0;
}

// The e-mail address: the subject's emailAddress, else the first
// rfc822Name of the alternative names.
uint32_t EmailText(X509 *cert, std::string *out) {
  if (NameEntries(X509_get_subject_name(cert), NID_pkcs9_emailAddress, out) == 0) return 0;
  using NamesPtr = std::unique_ptr<GENERAL_NAMES, Free<GENERAL_NAMES_free>>;
  NamesPtr names(static_cast<GENERAL_NAMES *>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME *gn = sk_GENERAL_NAME_value(names.get(), i);
    if (gn->type != GEN_EMAIL) continue;
    out->assign(reinterpret_cast<const char *>(ASN1_STRING_get0_data(gn->d.rfc822Name)),
                static_cast<size_t>(ASN1_STRING_length(gn->d.rfc822Name)));
    return 0;
  }
  return ERR_CERT_ITEM_NOT_FOUND;
}

uint32_t DerBase64(int len, unsigned char *der, std::string *out) {
  const OpenSslPtr<unsigned char> owner(der);
  if (len <= 0) return ERR_CERT_ITEM_NOT_FOUND;
  *out = Base64Text({der, static_cast<size_t>(len)});
  return 0;
}

// A policy: its CPS URIs and notice texts, one a line, or its OID alone.
uint32_t PolicyText(X509 *cert, const ASN1_OBJECT *oid, std::string *out) {
  PoliciesPtr policies(
      static_cast<CERTIFICATEPOLICIES *>(X509_get_ext_d2i(cert, NID_certificate_policies, nullptr, nullptr)));
  ERR_clear_error();
  for (int i = 0; i < sk_POLICYINFO_num(policies.get()); ++i) {
    const POLICYINFO *policy = sk_POLICYINFO_value(policies.get(), i);
    if (OBJ_cmp(policy->policyid, oid) != 0) continue;
    std::string text;
    for (int j = 0; j < sk_POLICYQUALINFO_num(policy->qualifiers); ++j) {
      const POLICYQUALINFO *q = sk_POLICYQUALINFO_value(policy->qualifiers, j);
      const ASN1_STRING *s = nullptr;
      if (OBJ_obj2nid(q->pqualid) == NID_id_qt_cps) {
        s = q->d.cpsuri;
      } else if (OBJ_obj2nid(q->pqualid) == NID_id_qt_unotice && q->d.usernotice != nullptr) {
        s = q->d.usernotice->exptext;
      }
      unsigned char *utf8 = nullptr;
      const int n = s != nullptr ? ASN1_STRING_to_UTF8(&utf8, s) : -1;
      const OpenSslPtr<unsigned char> owner(utf8);
      if (n < 0) continue;
      if (!text.empty()) text += "\n";
      text.append(reinterpret_cast<char *>(utf8), static_cast<size_t>(n));
    }
    if (text.empty()) {
      char dotted[128];
      OBJ_obj2txt(dotted, sizeof dotted, oid, 1);
      text = dotted;
    }
    *out = std::move(text);
    return 0;
  }
  return ERR_CERT_EXT_NOT_FOUND;
}

int ExtensionNid(uint32_t item) {
  switch (item) {
    case ZEPH_CERT_ITEM_AUTHORITY_KEY_ID:
      return NID_authority_key_identifier;
    case ZEPH_CERT_ITEM_SUBJECT_KEY_ID:
      return NID_subject_key_identifier;
    case ZEPH_CERT_ITEM_KEY_USAGE:
      return NID_key_usage;
    case ZEPH_CERT_ITEM_PRIVATE_KEY_USAGE_PERIOD:
      return NID_private_key_usage_period;
    case ZEPH_CERT_ITEM_CERTIFICATE_POLICIES:
      return NID_certificate_policies;
    case ZEPH_CERT_ITEM_POLICY_MAPPINGS:
      return NID_policy_mappings;
    case ZEPH_CERT_ITEM_BASIC_CONSTRAINTS:
      return NID_basic_constraints;
    case ZEPH_CERT_ITEM_POLICY_CONSTRAINTS:
      return NID_policy_constraints;
    case ZEPH_CERT_ITEM_EXT_KEY_USAGE:
      return NID_ext_key_usage;
    case ZEPH_CERT_ITEM_CRL_DISTRIBUTION_POINTS:
      return NID_crl_distribution_points;
    case ZEPH_CERT_ITEM_NETSCAPE_CERT_TYPE:
      return NID_netscape_cert_type;
    default:
      return NID_undef;
  }
}

}  // namespace

std::string NameText(const X509_NAME *name) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  constexpr unsigned long kFlags =
      XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_FN_SN | ASN1_STRFLGS_UTF8_CONVERT | ASN1_STRFLGS_ESC_CTRL | ASN1_STRFLGS_ESC_2253;
  if (!bio || X509_NAME_print_ex(bio.get(), name, 0, kFlags) < 0) return {};
  return BioText(bio.get());
}

std::string TimeText(const ASN1_TIME *t) {
  std::tm tm{};
  if (t == nullptr || ASN1_TIME_to_tm(t, &tm) != 1) return {};
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02dZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec);
  return text;
}

std::string SerialText(const X509 *cert) {
  BnPtr bn(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr));
  const OpenSslPtr<char> hex(bn ? BN_bn2hex(bn.get()) : nullptr);
  return hex ? std::string(hex.get()) : std::string();
}

JsonPtr CertificateJson(std::span<const uint8_t> der, const char *usage) {
  JsonPtr item(cJSON_CreateObject());
  if (!item || cJSON_AddStringToObject(item.get(), "usage", usage) == nullptr) return nullptr;
  const unsigned char *p = der.data();
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  ERR_clear_error();
  if (cert) {
    const std::pair<const char *, std::string> fields[] = {{"subject", NameText(X509_get_subject_name(cert.get()))},
                                                           {"issuer", NameText(X509_get_issuer_name(cert.get()))},
                                                           {"serial", SerialText(cert.get())},
                                                           {"notBefore", TimeText(X509_get0_notBefore(cert.get()))},
                                                           {"notAfter", TimeText(X509_get0_notAfter(cert.get()))}};
    for (const auto &[key, value] : fields) {
      if (cJSON_AddStringToObject(item.get(), key, value.c_str()) == nullptr) return nullptr;
    }
  }
  if (cJSON_AddStringToObject(item.get(), "cert", Base64Text(der).c_str()) == nullptr) return nullptr;
  return item;
}

uint32_t CertItemText(X509 *cert, uint32_t item, std::string *out) {
  const int ext_nid = ExtensionNid(item);
  if (ext_nid != NID_undef) return ExtensionByNid(cert, ext_nid, out);
  switch (item) {
    case ZEPH_CERT_ITEM_VERSION: {
      char version[24];
      std::snprintf(version, sizeof version, "V%ld", X509_get_version(cert) + 1);
      *out = version;
      return 0;
    }
    case ZEPH_CERT_ITEM_SERIAL:
      *out = SerialText(cert);
      return 0;
    case ZEPH_CERT_ITEM_SIGNATURE_ALG: {
      const ASN1_OBJECT *oid = nullptr;
      X509_ALGOR_get0(&oid, nullptr, nullptr, X509_get0_tbs_sigalg(cert));
      char name[128];
      OBJ_obj2txt(name, sizeof name, oid, 0);
      *out = name;
      return 0;
    }
    case ZEPH_CERT_ITEM_ISSUER:
      *out = NameText(X509_get_issuer_name(cert));
      return 0;
    case ZEPH_CERT_ITEM_VALIDITY:
      *out = TimeText(X509_get0_notBefore(cert)) + " - " + TimeText(X509_get0_notAfter(cert));
      return 0;
    case ZEPH_CERT_ITEM_SUBJECT:
      *out = NameText(X509_get_subject_name(cert));
      return 0;
    case ZEPH_CERT_ITEM_PUBLIC_KEY: {
      unsigned char *der = nullptr;
      const int len = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(cert), &der);  // before der is read
      return DerBase64(len, der, out);
    }
    case ZEPH_CERT_ITEM_EXTENSIONS: {
      const STACK_OF(X509_EXTENSION) *exts = X509_get0_extensions(cert);
      if (sk_X509_EXTENSION_num(exts) <= 0) return ERR_CERT_ITEM_NOT_FOUND;
      unsigned char *der = nullptr;
      const int len = i2d_X509_EXTENSIONS(exts, &der);
      return DerBase64(len, der, out);
    }
    case ZEPH_CERT_ITEM_ISSUER_CN:
      return NameEntries(X509_get_issuer_name(cert), NID_commonName, out);
    case ZEPH_CERT_ITEM_ISSUER_O:
      return NameEntries(X509_get_issuer_name(cert), NID_organizationName, out);
    case ZEPH_CERT_ITEM_ISSUER_OU:
      return NameEntries(X509_get_issuer_name(cert), NID_organizationalUnitName, out);
    case ZEPH_CERT_ITEM_SUBJECT_CN:
      return NameEntries(X509_get_subject_name(cert), NID_commonName, out);
    case ZEPH_CERT_ITEM_SUBJECT_O:
      return NameEntries(X509_get_subject_name(cert), NID_organizationName, out);
    case ZEPH_CERT_ITEM_SUBJECT_OU:
      return NameEntries(X509_get_subject_name(cert), NID_organizationalUnitName, out);
    case ZEPH_CERT_ITEM_SUBJECT_EMAIL:
      return EmailText(cert, out);
    case ZEPH_CERT_ITEM_NOT_BEFORE:
      *out = TimeText(X509_get0_notBefore(cert));
      return 0;
    case ZEPH_CERT_ITEM_NOT_AFTER:
      *out = TimeText(X509_get0_notAfter(cert));
      return 0;
    default:
      return ERR_CERT_ITEM_NOT_FOUND;
  }
}

uint32_t CertOidText(X509 *cert, const char *oid_text, std::string *out) {
  if (oid_text == nullptr || oid_text[0] == '\0') return ERR_INVALID_PARAMETER;
  Asn1ObjectPtr oid(OBJ_txt2obj(oid_text, 0));
  ERR_clear_error();
  if (!oid) return ERR_INVALID_PARAMETER;
  const int at = X509_get_ext_by_OBJ(cert, oid.get(), -1);
  if (at >= 0) {
    *out = ExtensionText(X509_get_ext(cert, at));
    return 0;
  }
  return PolicyText(cert, oid.get(), out);
}

}  // namespace zeph::pki
