/* Status values of zeph. 0 is success; the library's own failures lie in
 * 0x82080000..0x820800FF; vendor SKF statuses (0x0A00xxxx) pass through
 * unchanged. Callers compare numbers; the names are for readers. */
#ifndef ZEPH_C_STATUS_H
#define ZEPH_C_STATUS_H

#define ZEPH_OK                        0x00000000u
#define ZEPH_ERR_MISSING_HANDLE        0xFFFFFFFFu

#define ERR_NO_DEVICE_LIBRARY          0x82080000u
#define ERR_OUT_OF_MEMORY              0x82080001u
#define ERR_PIN_VERIFY_FAILED          0x82080002u
#define ERR_PIN_MISMATCH               0x82080003u
#define ERR_GET_CERT_FAILED            0x82080006u
#define ERR_BUFFER_TOO_SMALL           0x82080009u
#define ERR_SIGN_FAILED                0x8208000Cu
#define ERR_SIGNATURE_INVALID          0x8208000Du
#define ERR_DIGEST_FAILED              0x8208000Eu
#define ERR_CERT_VERIFY_FAILED         0x8208000Fu
#define ERR_ENVELOPE_FAILED            0x82080010u
#define ERR_CERT_EXPIRED               0x82080012u
#define ERR_CERT_CHAIN_FAILED          0x82080013u
#define ERR_ISSUER_NOT_FOUND           0x82080014u
#define ERR_CERT_UNTRUSTED             0x82080015u
#define ERR_CERT_REVOKED               0x82080016u
#define ERR_CRL_FAILED                 0x82080017u
#define ERR_OCSP_CONNECT_FAILED        0x82080018u
#define ERR_OCSP_RESPONSE_FAILED       0x8208001Au
#define ERR_OCSP_FAILED                0x8208001Bu
#define ERR_CERT_STATUS_UNKNOWN        0x8208001Eu
#define ERR_ALG_UNSUPPORTED            0x8208001Fu
#define ERR_CERT_DECODE_FAILED         0x82080020u
#define ERR_CERT_ITEM_NOT_FOUND        0x82080021u
#define ERR_CERT_EXT_NOT_FOUND         0x82080023u
#define ERR_ENCODE_FAILED              0x82080024u
#define ERR_BASE64_INVALID             0x82080025u
#define ERR_ASYM_CRYPT_FAILED          0x8208002Du
#define ERR_SEAL_PARSE_FAILED          0x8208002Eu
#define ERR_DEVICE_CONFIG_INVALID      0x82080035u
#define ERR_PRETREATMENT_FAILED        0x82080038u
#define ERR_OPEN_SESSION_FAILED        0x82080039u
#define ERR_SM2_CIPHER_FORMAT          0x8208003Au
#define ERR_CERT_STATUS_OTHER          0x8208003Bu
#define ERR_HTTP_FAILED                0x8208003Cu
#define ERR_GEN_KEYPAIR_FAILED         0x82080040u
#define ERR_EXPORT_PUBKEY_FAILED       0x82080041u
#define ERR_CSR_FAILED                 0x82080042u
#define ERR_PUBKEY_CONVERT_FAILED      0x82080046u
#define ERR_CHANGE_PIN_FAILED          0x82080047u
#define ERR_UNLOCK_PIN_FAILED          0x82080048u
#define ERR_NO_KEY_FOUND               0x82080051u
#define ERR_DEVICE_AUTH_FAILED         0x82080059u
#define ERR_UNSUPPORTED_VALUE          0x8208005Au
#define ERR_INVALID_PARAMETER          0x8208005Bu
#define ERR_PADDING_INVALID            0x8208005Fu
#define ERR_DEVICE_FILE_WRITE_FAILED   0x82080060u
#define ERR_DEVICE_FILE_READ_FAILED    0x82080061u
#define ERR_FILE_OPEN_FAILED           0x82080070u
#define ERR_FILE_WRITE_FAILED          0x82080071u
#define ERR_JSON_INVALID               0x82080072u
#define ERR_COSIGN_FAILED              0x82080073u
#define ERR_EXT_INTERFACE_MISSING      0x820800FFu

#endif
