/* Compiled as C: every public header must stay valid C. */
#include "zeph_c.h"
#include "zeph_c_api.h"
#include "zeph_c_ci.h"
#include "zeph_c_export.h"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"
#include "zeph_skf.h"

#include <string.h>

int zeph_c_header_check(void) {
  char path[260];
  uint32_t version = 0;
  memset(path, 0, sizeof path);
  if (se_getLogPath(path) != 1) return 1;
  if (strncmp(path, "zeph_", 5) != 0) return 2;
  if (setLogCallback(NULL) == NULL) return 3;
  if (sizeof(DEVINFO) != 294) return 4;
  (void)version;
  return 0;
}
