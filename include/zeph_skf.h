/* GM/T 0016 (SKF) smart-key interface as Linux vendor libraries build it:
 * 4-byte ULONG, pack(1) structures, plain C calling convention.
 * Shared by the device layer (which resolves every entry point by name) and
 * by the software key (which implements them). */
#ifndef ZEPH_SKF_H
#define ZEPH_SKF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t ULONG;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef int32_t BOOL;
typedef uint8_t BYTE;
typedef char CHAR;
typedef char *LPSTR;
typedef void *HANDLE;
typedef HANDLE DEVHANDLE;
typedef HANDLE HAPPLICATION;
typedef HANDLE HCONTAINER;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/* Limits */
#define MAX_RSA_MODULUS_LEN          256
#define MAX_RSA_EXPONENT_LEN         4
#define ECC_MAX_XCOORDINATE_BITS_LEN 512
#define ECC_MAX_YCOORDINATE_BITS_LEN 512
#define ECC_MAX_MODULUS_BITS_LEN     512
#define MAX_IV_LEN                   32
#define SKF_MAX_FILE_NAME_LEN        32
#define SKF_MAX_CONTAINER_NAME_LEN   64
#define SKF_MAX_APPLICATION_NAME_LEN 16

/* Algorithm identifiers */
#define SGD_SM1_ECB   0x00000101u
#define SGD_SM1_CBC   0x00000102u
#define SGD_SM1_CFB   0x00000104u
#define SGD_SM1_OFB   0x00000108u
#define SGD_SM1_MAC   0x00000110u
#define SGD_SSF33_ECB 0x00000201u
#define SGD_SSF33_CBC 0x00000202u
#define SGD_SM4_ECB   0x00000401u
#define SGD_SM4_CBC   0x00000402u
#define SGD_SM4_CFB   0x00000404u
#define SGD_SM4_OFB   0x00000408u
#define SGD_SM4_MAC   0x00000410u
#define SGD_RSA       0x00010000u
#define SGD_SM2_1     0x00020100u /* signature */
#define SGD_SM2_2     0x00020200u /* key exchange */
#define SGD_SM2_3     0x00020400u /* encryption */
#define SGD_SM3       0x00000001u
#define SGD_SHA1      0x00000002u
#define SGD_SHA256    0x00000004u

/* PIN types */
#define ADMIN_TYPE 0u
#define USER_TYPE  1u

/* Access rights */
#define SECURE_NEVER_ACCOUNT    0x00u
#define SECURE_ADM_ACCOUNT      0x01u
#define SECURE_USER_ACCOUNT     0x10u
#define SECURE_ANYONE_ACCOUNT   0xFFu
#define SECURE_EVERYONE_ACCOUNT 0xFFu

/* Container types reported by SKF_GetConProperty */
#define CONTAINER_TYPE_EMPTY 0u
#define CONTAINER_TYPE_RSA   1u
#define CONTAINER_TYPE_ECC   2u

/* Status codes */
#define SAR_OK                        0x00000000u
#define SAR_FAIL                      0x0A000001u
#define SAR_UNKNOWNERR                0x0A000002u
#define SAR_NOTSUPPORTYETERR          0x0A000003u
#define SAR_FILEERR                   0x0A000004u
#define SAR_INVALIDHANDLEERR          0x0A000005u
#define SAR_INVALIDPARAMERR           0x0A000006u
#define SAR_READFILEERR               0x0A000007u
#define SAR_WRITEFILEERR              0x0A000008u
#define SAR_NAMELENERR                0x0A000009u
#define SAR_KEYUSAGEERR               0x0A00000Au
#define SAR_MODULUSLENERR             0x0A00000Bu
#define SAR_NOTINITIALIZEERR          0x0A00000Cu
#define SAR_OBJERR                    0x0A00000Du
#define SAR_MEMORYERR                 0x0A00000Eu
#define SAR_TIMEOUTERR                0x0A00000Fu
#define SAR_INDATALENERR              0x0A000010u
#define SAR_INDATAERR                 0x0A000011u
#define SAR_GENRANDERR                0x0A000012u
#define SAR_HASHOBJERR                0x0A000013u
#define SAR_HASHERR                   0x0A000014u
#define SAR_GENRSAKEYERR              0x0A000015u
#define SAR_RSAMODULUSLENERR          0x0A000016u
#define SAR_CSPIMPRTPUBKEYERR         0x0A000017u
#define SAR_RSAENCERR                 0x0A000018u
#define SAR_RSADECERR                 0x0A000019u
#define SAR_HASHNOTEQUALERR           0x0A00001Au
#define SAR_KEYNOTFOUNTERR            0x0A00001Bu
#define SAR_CERTNOTFOUNTERR           0x0A00001Cu
#define SAR_NOTEXPORTERR              0x0A00001Du
#define SAR_DECRYPTPADERR             0x0A00001Eu
#define SAR_MACLENERR                 0x0A00001Fu
#define SAR_BUFFER_TOO_SMALL          0x0A000020u
#define SAR_KEYINFOTYPEERR            0x0A000021u
#define SAR_NOT_EVENTERR              0x0A000022u
#define SAR_DEVICE_REMOVED            0x0A000023u
#define SAR_PIN_INCORRECT             0x0A000024u
#define SAR_PIN_LOCKED                0x0A000025u
#define SAR_PIN_INVALID               0x0A000026u
#define SAR_PIN_LEN_RANGE             0x0A000027u
#define SAR_USER_ALREADY_LOGGED_IN    0x0A000028u
#define SAR_USER_PIN_NOT_INITIALIZED  0x0A000029u
#define SAR_USER_TYPE_INVALID         0x0A00002Au
#define SAR_APPLICATION_NAME_INVALID  0x0A00002Bu
#define SAR_APPLICATION_EXISTS        0x0A00002Cu
#define SAR_USER_NOT_LOGGED_IN        0x0A00002Du
#define SAR_APPLICATION_NOT_EXISTS    0x0A00002Eu
#define SAR_FILE_ALREADY_EXIST        0x0A00002Fu
#define SAR_NO_ROOM                   0x0A000030u
#define SAR_FILE_NOT_EXIST            0x0A000031u
#define SAR_REACH_MAX_CONTAINER_COUNT 0x0A000032u

#pragma pack(push, 1)

typedef struct Struct_Version {
  BYTE major;
  BYTE minor;
} VERSION;

typedef struct Struct_DEVINFO {
  VERSION Version;
  CHAR Manufacturer[64];
  CHAR Issuer[64];
  CHAR Label[32];
  CHAR SerialNumber[32];
  VERSION HWVersion;
  VERSION FirmwareVersion;
  ULONG AlgSymCap;
  ULONG AlgAsymCap;
  ULONG AlgHashCap;
  ULONG DevAuthAlgId;
  ULONG TotalSpace;
  ULONG FreeSpace;
  ULONG MaxECCBufferSize;
  ULONG MaxBufferSize;
  BYTE Reserved[64];
} DEVINFO, *PDEVINFO;

typedef struct Struct_RSAPUBLICKEYBLOB {
  ULONG AlgID;
  ULONG BitLen;
  BYTE Modulus[MAX_RSA_MODULUS_LEN];
  BYTE PublicExponent[MAX_RSA_EXPONENT_LEN];
} RSAPUBLICKEYBLOB, *PRSAPUBLICKEYBLOB;

typedef struct Struct_RSAPRIVATEKEYBLOB {
  ULONG AlgID;
  ULONG BitLen;
  BYTE Modulus[MAX_RSA_MODULUS_LEN];
  BYTE PublicExponent[MAX_RSA_EXPONENT_LEN];
  BYTE PrivateExponent[MAX_RSA_MODULUS_LEN];
  BYTE Prime1[MAX_RSA_MODULUS_LEN / 2];
  BYTE Prime2[MAX_RSA_MODULUS_LEN / 2];
  BYTE Prime1Exponent[MAX_RSA_MODULUS_LEN / 2];
  BYTE Prime2Exponent[MAX_RSA_MODULUS_LEN / 2];
  BYTE Coefficient[MAX_RSA_MODULUS_LEN / 2];
} RSAPRIVATEKEYBLOB, *PRSAPRIVATEKEYBLOB;

typedef struct Struct_ECCPUBLICKEYBLOB {
  ULONG BitLen;
  BYTE XCoordinate[ECC_MAX_XCOORDINATE_BITS_LEN / 8];
  BYTE YCoordinate[ECC_MAX_YCOORDINATE_BITS_LEN / 8];
} ECCPUBLICKEYBLOB, *PECCPUBLICKEYBLOB;

typedef struct Struct_ECCPRIVATEKEYBLOB {
  ULONG BitLen;
  BYTE PrivateKey[ECC_MAX_MODULUS_BITS_LEN / 8];
} ECCPRIVATEKEYBLOB, *PECCPRIVATEKEYBLOB;

/* Cipher is variable: CipherLen bytes start at Cipher[0]. */
typedef struct Struct_ECCCIPHERBLOB {
  BYTE XCoordinate[ECC_MAX_XCOORDINATE_BITS_LEN / 8];
  BYTE YCoordinate[ECC_MAX_XCOORDINATE_BITS_LEN / 8];
  BYTE HASH[32];
  ULONG CipherLen;
  BYTE Cipher[1];
} ECCCIPHERBLOB, *PECCCIPHERBLOB;

typedef struct Struct_ECCSIGNATUREBLOB {
  BYTE r[ECC_MAX_XCOORDINATE_BITS_LEN / 8];
  BYTE s[ECC_MAX_XCOORDINATE_BITS_LEN / 8];
} ECCSIGNATUREBLOB, *PECCSIGNATUREBLOB;

typedef struct Struct_BLOCKCIPHERPARAM {
  BYTE IV[MAX_IV_LEN];
  ULONG IVLen;
  ULONG PaddingType;
  ULONG FeedBitLen;
} BLOCKCIPHERPARAM, *PBLOCKCIPHERPARAM;

typedef struct Struct_FILEATTRIBUTE {
  CHAR FileName[32];
  ULONG FileSize;
  ULONG ReadRights;
  ULONG WriteRights;
} FILEATTRIBUTE, *PFILEATTRIBUTE;

typedef struct SKF_ENVELOPEDKEYBLOB {
  ULONG Version;
  ULONG ulSymmAlgID;
  ULONG ulBits;
  BYTE cbEncryptedPriKey[64];
  ECCPUBLICKEYBLOB PubKey;
  ECCCIPHERBLOB ECCCipherBlob;
} ENVELOPEDKEYBLOB, *PENVELOPEDKEYBLOB;

#pragma pack(pop)

#ifdef __cplusplus
#define ZEPH_SKF_STATIC_ASSERT static_assert
#else
#define ZEPH_SKF_STATIC_ASSERT _Static_assert
#endif
ZEPH_SKF_STATIC_ASSERT(sizeof(VERSION) == 2, "VERSION size");
ZEPH_SKF_STATIC_ASSERT(sizeof(DEVINFO) == 294, "DEVINFO size");
ZEPH_SKF_STATIC_ASSERT(sizeof(RSAPUBLICKEYBLOB) == 268, "RSAPUBLICKEYBLOB size");
ZEPH_SKF_STATIC_ASSERT(sizeof(RSAPRIVATEKEYBLOB) == 1164, "RSAPRIVATEKEYBLOB size");
ZEPH_SKF_STATIC_ASSERT(sizeof(ECCPUBLICKEYBLOB) == 132, "ECCPUBLICKEYBLOB size");
ZEPH_SKF_STATIC_ASSERT(sizeof(ECCPRIVATEKEYBLOB) == 68, "ECCPRIVATEKEYBLOB size");
ZEPH_SKF_STATIC_ASSERT(sizeof(ECCCIPHERBLOB) == 165, "ECCCIPHERBLOB size");
ZEPH_SKF_STATIC_ASSERT(sizeof(ECCSIGNATUREBLOB) == 128, "ECCSIGNATUREBLOB size");
ZEPH_SKF_STATIC_ASSERT(sizeof(BLOCKCIPHERPARAM) == 44, "BLOCKCIPHERPARAM size");
ZEPH_SKF_STATIC_ASSERT(sizeof(FILEATTRIBUTE) == 44, "FILEATTRIBUTE size");
ZEPH_SKF_STATIC_ASSERT(sizeof(ENVELOPEDKEYBLOB) == 373, "ENVELOPEDKEYBLOB size");

/* Entry points. Each X(name, return-args) line yields a prototype and a
 * function-pointer type PFN_<name>; the device layer only uses the types. */
/* clang-format off */
#define ZEPH_SKF_FUNCTIONS(X)                                                                     \
  X(SKF_EnumDev, (BOOL bPresent, LPSTR szNameList, ULONG *pulSize))                               \
  X(SKF_ConnectDev, (LPSTR szName, DEVHANDLE *phDev))                                             \
  X(SKF_DisConnectDev, (DEVHANDLE hDev))                                                          \
  X(SKF_GetDevInfo, (DEVHANDLE hDev, DEVINFO *pDevInfo))                                          \
  X(SKF_DevAuth, (DEVHANDLE hDev, BYTE *pbAuthData, ULONG ulLen))                                 \
  X(SKF_ChangeDevAuthKey, (DEVHANDLE hDev, BYTE *pbKeyValue, ULONG ulKeyLen))                     \
  X(SKF_VerifyPIN, (HAPPLICATION hApp, ULONG ulPINType, LPSTR szPIN, ULONG *pulRetryCount))       \
  X(SKF_ChangePIN, (HAPPLICATION hApp, ULONG ulPINType, LPSTR szOldPin, LPSTR szNewPin,           \
                    ULONG *pulRetryCount))                                                        \
  X(SKF_GetPINInfo, (HAPPLICATION hApp, ULONG ulPINType, ULONG *pulMaxRetryCount,                 \
                     ULONG *pulRemainRetryCount, BOOL *pbDefaultPin))                             \
  X(SKF_UnblockPIN, (HAPPLICATION hApp, LPSTR szAdminPIN, LPSTR szNewUserPIN,                     \
                     ULONG *pulRetryCount))                                                       \
  X(SKF_CreateApplication, (DEVHANDLE hDev, LPSTR szAppName, LPSTR szAdminPin,                    \
                            DWORD dwAdminPinRetryCount, LPSTR szUserPin,                          \
                            DWORD dwUserPinRetryCount, DWORD dwCreateFileRights,                  \
                            HAPPLICATION *phApplication))                                         \
  X(SKF_EnumApplication, (DEVHANDLE hDev, LPSTR szAppName, ULONG *pulSize))                       \
  X(SKF_DeleteApplication, (DEVHANDLE hDev, LPSTR szAppName))                                     \
  X(SKF_OpenApplication, (DEVHANDLE hDev, LPSTR szAppName, HAPPLICATION *phApplication))          \
  X(SKF_CloseApplication, (HAPPLICATION hApplication))                                            \
  X(SKF_CreateFile, (HAPPLICATION hApplication, LPSTR szFileName, ULONG ulFileSize,               \
                     ULONG ulReadRights, ULONG ulWriteRights))                                    \
  X(SKF_DeleteFile, (HAPPLICATION hApplication, LPSTR szFileName))                                \
  X(SKF_EnumFiles, (HAPPLICATION hApplication, LPSTR szFileList, ULONG *pulSize))                 \
  X(SKF_GetFileInfo, (HAPPLICATION hApplication, LPSTR szFileName, FILEATTRIBUTE *pFileInfo))     \
  X(SKF_ReadFile, (HAPPLICATION hApplication, LPSTR szFileName, ULONG ulOffset, ULONG ulSize,     \
                   BYTE *pbOutData, ULONG *pulOutLen))                                            \
  X(SKF_WriteFile, (HAPPLICATION hApplication, LPSTR szFileName, ULONG ulOffset, BYTE *pbData,    \
                    ULONG ulSize))                                                                \
  X(SKF_CreateContainer, (HAPPLICATION hApplication, LPSTR szContainerName,                       \
                          HCONTAINER *phContainer))                                               \
  X(SKF_DeleteContainer, (HAPPLICATION hApplication, LPSTR szContainerName))                      \
  X(SKF_OpenContainer, (HAPPLICATION hApplication, LPSTR szContainerName,                         \
                        HCONTAINER *phContainer))                                                 \
  X(SKF_CloseContainer, (HCONTAINER hContainer))                                                  \
  X(SKF_EnumContainer, (HAPPLICATION hApplication, LPSTR szContainerName, ULONG *pulSize))        \
  X(SKF_GetConProperty, (HCONTAINER hContainer, ULONG *pulConProperty))                           \
  X(SKF_ImportCertificate, (HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbCert, ULONG ulCertLen))\
  X(SKF_ExportCertificate, (HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbCert,                  \
                            ULONG *pulCertLen))                                                   \
  X(SKF_GenRandom, (DEVHANDLE hDev, BYTE *pbRandom, ULONG ulRandomLen))                           \
  X(SKF_GenRSAKeyPair, (HCONTAINER hContainer, ULONG ulBitsLen, RSAPUBLICKEYBLOB *pBlob))         \
  X(SKF_ImportRSAKeyPair, (HCONTAINER hContainer, ULONG ulSymAlgId, BYTE *pbWrappedKey,           \
                           ULONG ulWrappedKeyLen, BYTE *pbEncryptedData, ULONG ulEncryptedDataLen))\
  X(SKF_RSASignData, (HCONTAINER hContainer, BYTE *pbData, ULONG ulDataLen, BYTE *pbSignature,    \
                      ULONG *pulSignLen))                                                         \
  X(SKF_GenECCKeyPair, (HCONTAINER hContainer, ULONG ulAlgId, ECCPUBLICKEYBLOB *pBlob))           \
  X(SKF_ImportECCKeyPair, (HCONTAINER hContainer, ENVELOPEDKEYBLOB *pEnvelopedKeyBlob))           \
  X(SKF_ECCSignData, (HCONTAINER hContainer, BYTE *pbDigest, ULONG ulDigestLen,                   \
                      ECCSIGNATUREBLOB *pSignature))                                              \
  X(SKF_ExportPublicKey, (HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbBlob, ULONG *pulBlobLen))\
  X(SKF_ImportSessionKey, (HCONTAINER hContainer, ULONG ulAlgId, BYTE *pbWrapedData,              \
                           ULONG ulWrapedLen, HANDLE *phKey))                                     \
  X(SKF_SetSymmKey, (DEVHANDLE hDev, BYTE *pbKey, ULONG ulAlgID, HANDLE *phKey))                  \
  X(SKF_EncryptInit, (HANDLE hKey, BLOCKCIPHERPARAM EncryptParam))                                \
  X(SKF_Encrypt, (HANDLE hKey, BYTE *pbData, ULONG ulDataLen, BYTE *pbEncryptedData,              \
                  ULONG *pulEncryptedLen))                                                        \
  X(SKF_EncryptUpdate, (HANDLE hKey, BYTE *pbData, ULONG ulDataLen, BYTE *pbEncryptedData,        \
                        ULONG *pulEncryptedLen))                                                  \
  X(SKF_EncryptFinal, (HANDLE hKey, BYTE *pbEncryptedData, ULONG *pulEncryptedDataLen))           \
  X(SKF_DecryptInit, (HANDLE hKey, BLOCKCIPHERPARAM DecryptParam))                                \
  X(SKF_Decrypt, (HANDLE hKey, BYTE *pbEncryptedData, ULONG ulEncryptedLen, BYTE *pbData,         \
                  ULONG *pulDataLen))                                                             \
  X(SKF_DecryptUpdate, (HANDLE hKey, BYTE *pbEncryptedData, ULONG ulEncryptedLen, BYTE *pbData,   \
                        ULONG *pulDataLen))                                                       \
  X(SKF_DecryptFinal, (HANDLE hKey, BYTE *pbDecryptedData, ULONG *pulDecryptedDataLen))           \
  X(SKF_DigestInit, (DEVHANDLE hDev, ULONG ulAlgID, ECCPUBLICKEYBLOB *pPubKey, BYTE *pbID,        \
                     ULONG ulIDLen, HANDLE *phHash))                                              \
  X(SKF_DigestUpdate, (HANDLE hHash, BYTE *pbData, ULONG ulDataLen))                              \
  X(SKF_DigestFinal, (HANDLE hHash, BYTE *pHashData, ULONG *pulHashLen))                          \
  X(SKF_CloseHandle, (HANDLE hHandle))                                                            \
  X(SKF_ECCDecrypt, (HCONTAINER hContainer, BOOL bSignFlag, ECCCIPHERBLOB *pCipherText,           \
                     BYTE *pbPlainText, ULONG *pulPlainTextLen))                                  \
  X(SKF_RSADecrypt, (HCONTAINER hContainer, BYTE *pbIn, ULONG ulInLen, BYTE *pbOut,               \
                     ULONG *pulOutLen, ULONG ulMode))                                             \
  X(SKF_Ex_GenRSAKeyPair, (HCONTAINER hContainer, ULONG ulBitsLen, RSAPUBLICKEYBLOB *pBlob))      \
  X(SKF_Ex_RSASignData, (HCONTAINER hContainer, ULONG ulFlag, BYTE *pbData, ULONG ulDataLen,      \
                         BYTE *pbSignature, ULONG *pulSignLen))                                   \
  X(SKF_Eu_RSASignData, (HCONTAINER hContainer, BYTE *pbData, ULONG ulDataLen,                    \
                         BYTE *pbSignature, ULONG *pulSignLen, ULONG *pulExtra))                  \
  X(SKF_Eu_ECCSignData, (HCONTAINER hContainer, BYTE *pbData, ULONG ulDataLen,                    \
                         ECCSIGNATUREBLOB *pSignature))
/* clang-format on */

/* The software key defines ZEPH_SKF_IMPLEMENTATION to export what it defines. */
#if defined(ZEPH_SKF_IMPLEMENTATION)
#define ZEPH_SKF_API __attribute__((visibility("default")))
#else
#define ZEPH_SKF_API
#endif

#define ZEPH_SKF_DECLARE(name, args) \
  ZEPH_SKF_API ULONG name args;      \
  typedef ULONG(*PFN_##name) args;
ZEPH_SKF_FUNCTIONS(ZEPH_SKF_DECLARE)
#undef ZEPH_SKF_DECLARE

#ifdef __cplusplus
}
#endif

#endif
