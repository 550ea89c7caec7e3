// ASN.1 templates of the client's shares: the exported share structures and
// the sealed body of an RSA share (internal).
#include <openssl/asn1t.h>

#include "bivo/bivo_client.hpp"

// clang-format off
ASN1_SEQUENCE(Digest) = {
    ASN1_SIMPLE(Digest, ID, ASN1_OBJECT),
    ASN1_SIMPLE(Digest, digest, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(Digest)

ASN1_SEQUENCE(AlgParm) = {
    ASN1_SIMPLE(AlgParm, aignAlgID, ASN1_OBJECT),
} ASN1_SEQUENCE_END(AlgParm)

ASN1_SEQUENCE(BIVOParm) = {
    ASN1_SIMPLE(BIVOParm, version, ASN1_INTEGER),
    ASN1_SIMPLE(BIVOParm, alg, AlgParm),
    ASN1_SIMPLE(BIVOParm, pubkey, ASN1_OCTET_STRING),
    ASN1_SIMPLE(BIVOParm, d1, ASN1_BIT_STRING),
    ASN1_SIMPLE(BIVOParm, d1_inv, ASN1_BIT_STRING),
    ASN1_SIMPLE(BIVOParm, hash, Digest),
} ASN1_SEQUENCE_END(BIVOParm)

ASN1_SEQUENCE(AlgIdentifier) = {
    ASN1_SIMPLE(AlgIdentifier, ID, ASN1_OBJECT),
} ASN1_SEQUENCE_END(AlgIdentifier)

ASN1_SEQUENCE(RSAParm) = {
    ASN1_SIMPLE(RSAParm, encAlg, AlgIdentifier),
    ASN1_SIMPLE(RSAParm, encryptedData, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(RSAParm)

IMPLEMENT_ASN1_FUNCTIONS(Digest)
IMPLEMENT_ASN1_FUNCTIONS(AlgParm)
IMPLEMENT_ASN1_FUNCTIONS(BIVOParm)
IMPLEMENT_ASN1_FUNCTIONS(AlgIdentifier)
IMPLEMENT_ASN1_FUNCTIONS(RSAParm)

ASN1_SEQUENCE(BivoRsaShare) = {
    ASN1_SIMPLE(BivoRsaShare, container_id, ASN1_PRINTABLESTRING),
    ASN1_SIMPLE(BivoRsaShare, n, ASN1_INTEGER),
    ASN1_SIMPLE(BivoRsaShare, e, ASN1_INTEGER),
    ASN1_SIMPLE(BivoRsaShare, d1, ASN1_INTEGER),
} ASN1_SEQUENCE_END(BivoRsaShare)

IMPLEMENT_ASN1_FUNCTIONS(BivoRsaShare)
    // clang-format on
