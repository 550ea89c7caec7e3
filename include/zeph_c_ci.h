/* The JSON command interface: one request text in, one response text out. */
#ifndef ZEPH_C_CI_H
#define ZEPH_C_CI_H

#include <stdint.h>

#include "zeph_c_export.h"

ZEPH_BEGIN_DECLS

/* Always returns 0; the outcome is the response document
 * {"type":...,"code":...[,"data":...]} written NUL-terminated to response,
 * which the caller sizes for the largest reply it requests. */
ZEPH_API uint32_t ZEPH_C_CI(const char *request, char *response);

ZEPH_END_DECLS

#endif
