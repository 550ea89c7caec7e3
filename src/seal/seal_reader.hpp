// The tolerant reader: seals and seal signatures of either family as real
// files carry them, read in place. Nothing is decoded into objects or
// encoded again, so what was signed is verified over the very bytes stored.
//
// Accepted beyond the specified structures: certificates in a list inline or
// wrapped in OCTET STRINGs (other elements are skipped), any of the usual
// string types for texts, UTCTime or GeneralizedTime for dates, a signing
// time as GeneralizedTime, UTCTime, a BIT STRING or a string holding text,
// extensions untagged or under [0], and a trailing [0] time stamp.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "seal/der.hpp"

namespace zeph::seal::reader {

using der::Bytes;
using der::Tlv;

// SES: the maker's signature sits in a record of its own; GB: its members
// sit in the seal itself.
enum class Family { kSes, kGb };

struct SealView {
  Family family = Family::kGb;
  Tlv info;  // the seal information as stored
  std::optional<int64_t> version;
  Bytes id, vid, es_id, name;  // text contents as stored
  std::optional<int64_t> type;
  Bytes pic_type, pic_data;
  std::optional<int64_t> width, height;
  std::vector<Bytes> certs;  // DER of each certificate of the list
  Tlv create_date, valid_start, valid_end;
  Bytes maker_cert;  // DER
  Bytes maker_alg;   // the maker's signature algorithm, the whole OBJECT IDENTIFIER
  // SES: the maker's certificate and algorithm as stored; the maker signs
  // SEQUENCE { information, certificate, algorithm }.
  Bytes maker_cert_and_alg;
  Bytes maker_signature;  // the octets of the BIT STRING
  bool time_stamp = false;
};

struct SignatureView {
  Family family = Family::kGb;
  Tlv to_sign;  // as stored: what the signer signed
  std::optional<int64_t> version;
  SealView seal;
  Tlv time_info;
  Bytes data_hash;  // octets
  Bytes property;
  Bytes signer_cert;  // DER
  Bytes signature;    // the octets of the BIT STRING
  bool time_stamp = false;
};

std::optional<SealView> ReadSeal(Bytes in);
std::optional<SignatureView> ReadSignature(Bytes in);

// Seconds since 1970 of a seal time: UTCTime, GeneralizedTime, or text in a
// BIT STRING or string in the usual ISO 8601 forms ("20240102030405Z",
// "2024-01-02 03:04:05", "2024-01-02T03:04:05+08:00"). A time without a zone
// is taken as UTC.
std::optional<int64_t> TimeOf(const Tlv &t);
// "YYYYMMDDHHMMSSZ".
std::string FormatTime(int64_t seconds);

// A signature value as DER SEQUENCE { r, s }: DER as stored, DER whose
// trailing zero octets the BIT STRING rule dropped, or raw 64-byte r || s.
struct SignatureValue {
  std::vector<uint8_t> der;
  bool raw = false;
};
SignatureValue SignatureDer(Bytes value);

}  // namespace zeph::seal::reader
