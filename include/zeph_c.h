/* zeph: everything a host includes. */
#ifndef ZEPH_C_H
#define ZEPH_C_H

#include "zeph_c_api.h"
#include "zeph_c_bivo.h"
#include "zeph_c_bivo_math.h"
#include "zeph_c_cert.h"
#include "zeph_c_ci.h"
#include "zeph_c_corvex.h"
#include "zeph_c_device.h"
#include "zeph_c_gm.h"
#include "zeph_c_p7.h"
#include "zeph_c_pki.h"
#include "zeph_c_randtest.h"
#include "zeph_c_sdbi.h"
#include "zeph_c_seal.h"
#include "zeph_c_sm2.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

#endif
