/* The JSON command interface: one request text in, one response text out. */
#ifndef ZEPH_C_CI_H
#define ZEPH_C_CI_H

#include <stdint.h>

#include "zeph_c_export.h"

ZEPH_BEGIN_DECLS

/* Always returns 0; the outcome is the response document
 * {"type":...,"code":...[,"data":...]} written NUL-terminated to out_response,
 * which the caller sizes for the largest reply it requests. */
ZEPH_API uint32_t ZEPH_C_CI(const char *request, char *out_response);

/* The same with a bounded response buffer. The command runs once, then:
 * - 0: the document and its NUL fit within capacity and were written;
 * - ERR_BUFFER_TOO_SMALL (0x82080009): they did not fit (or out_response is
 *   NULL). Nothing is written past capacity: out_response receives the document
 *   without its "data" member when that fits, else an empty text (when
 *   capacity >= 1). The command has run all the same, so a host that wants
 *   the data must not blindly repeat commands that change the key.
 * out_required (optional) always receives the full document length + 1. */
ZEPH_API uint32_t ZEPH_C_CI_Ex(const char *request, char *out_response, uint32_t capacity, uint32_t *out_required);

ZEPH_END_DECLS

#endif
