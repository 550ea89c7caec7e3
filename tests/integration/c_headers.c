/* Compiled as C: every public header must stay valid C. */
#include <stdlib.h>
#include <string.h>

#include "zeph_c.h"
#include "zeph_c_api.h"
#include "zeph_c_bivo_math.h"
#include "zeph_c_ci.h"
#include "zeph_c_export.h"
#include "zeph_c_gm.h"
#include "zeph_c_p7.h"
#include "zeph_c_pki.h"
#include "zeph_c_randtest.h"
#include "zeph_c_sdbi.h"
#include "zeph_c_seal.h"
#include "zeph_c_sm2.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"
#include "zeph_skf.h"

int zeph_c_header_check(void) {
  char path[260];
  uint32_t version = 0;
  memset(path, 0, sizeof path);
  if (se_getLogPath(path) != 1) return 1;
  if (strncmp(path, "zeph_", 5) != 0) return 2;
  if (setLogCallback(NULL) == NULL) return 3;
  if (sizeof(DEVINFO) != 294) return 4;
  (void)version;

  /* The foundation helpers through the C view of their prototypes. */
  {
    const unsigned char abc[3] = {'a', 'b', 'c'};
    unsigned char digest[32];
    uint32_t len = sizeof digest;
    int nid = 0;
    char *text = NULL;
    unsigned char *bytes = NULL;
    char hex[6];
    char name[21];
    char *host = NULL;
    char *port = NULL;
    int https = 0;

    if (zeph_c_utils_digest(1, abc, 3, digest, &len, &nid) != 0 || len != 32 || nid != 1143) return 5;
    if (digest[0] != 0x66 || digest[31] != 0xE0) return 6;
    if (zeph_c_utils_hex2b64(abc, 3, &text) != 0 || strcmp(text, "YWJj") != 0) return 7;
    if (zeph_c_utils_b64tohex(text, &bytes, &len) != 0 || len != 3 || memcmp(bytes, abc, 3) != 0) return 8;
    free(text);
    free(bytes);
    len = sizeof hex;
    if (zeph_c_utils_hex2ascii(abc, 3, hex, &len) != 0 || len != 6 || memcmp(hex, "616263", 6) != 0) return 9;
    if (zeph_getVorliAlgName(4, name) != 0 || strcmp(name, "SHA256withRSA") != 0) return 10;
    if (zeph_parse_url("https://[::1]:8443", &host, &port, &https) != 1) return 11;
    if (strcmp(host, "::1") != 0 || strcmp(port, "8443") != 0 || https != 1) return 12;
    free(host);
    free(port);
    if (ZEPH_C_SetConfig(NULL) != 0xFFFFFFFFu) return 13;
  }

  /* PKI services and the SM2 message types through their C view. */
  {
    char reply[8];
    uint32_t len = 0;
    SM2_Sign *msg = SM2_Sign_new();
    unsigned char *der = NULL;
    ASN1_INTEGER *nonce = create_nonce(64);
    if (strncmp(HttpsPostHeadersForTimeStamp, "User-Agent: ", 12) != 0) return 14;
    if (ZEPH_C_HttpPost("127.0.0.1", 1, "/", "", 0, reply, &len) != 0xFFFFFFFFu) return 15;
    if (ZEPH_C_HttpSetTimeouts(0, 0) != 0 || ZEPH_C_HttpsSetCAFile(NULL) != 0) return 16;
    if (msg == NULL || SM2_Sign_it() == NULL) return 17;
    msg->ID = OBJ_txt2obj(ZEPH_OID_SM2_SIGNED_DATA, 1);
    if (i2d_SM2_Sign(msg, &der) != 14 || der[0] != 0x30) return 18;
    OPENSSL_free(der);
    SM2_Sign_free(msg);
    if (nonce == NULL || ASN1_STRING_length(nonce) > 8) return 19;
    ASN1_INTEGER_free(nonce);
  }

  /* The seal structures and detection through the C view. */
  {
    SESeal *seal = SESeal_new();
    VORLI_ExtData_structure *ext = VORLI_ExtData_structure_new();
    int32_t type = 0;
    const int built = seal != NULL && seal->SES_SealInfo != NULL && ext != NULL && ext->_critical == -1;
    SESeal_free(seal);
    VORLI_ExtData_structure_free(ext);
    if (!built) return 20;
    if (ZEPH_C_CheckSealType(NULL, 5, &type) != 0 || type != ZEPH_SEAL_TYPE_PICTURE) return 21;
  }

  if (BIVO_get_version(NULL) != BIVO_VERSION) return 22;

  /* The randomness tests: a runner, the bit array, a context and its report. */
  {
    unsigned char zeros[32];
    unsigned char alternating[2] = {0xAA, 0x55};
    char report[4096];
    uint64_t len = sizeof report;
    ZEPH_RANDTEST_CTX *ctx = ZEPH_C_RandTest_New();
    memset(zeros, 0, sizeof zeros);
    if (QuickRandomnessTest(zeros, sizeof zeros) != ZEPH_RANDTEST_FAIL_FREQUENCY) return 30;
    if (ReadBitsFromInput(alternating, 2) != 0 || BIVO_epsilon[0] != 1 || BIVO_epsilon[8] != 0) return 31;
    if (Frequency(16) != 0 || FrequencyTest(alternating, 2) != 0 || BIVO_epsilon != NULL) return 32;
    if (ctx == NULL || ZEPH_C_RandTest_Run(ctx, 0, zeros, sizeof zeros) != 33) return 33;
    if (ZEPH_C_RandTest_Report(ctx, report, &len) != 0 || strncmp(report, "{\"suite\":\"quick\"", 16) != 0) return 34;
    ZEPH_C_RandTest_Free(ctx);
    if (cephes_igamc(1.0, 0.0) != 1.0 || ComputePower(2, 10) != 1024u) return 35;
  }
  return 0;
}
