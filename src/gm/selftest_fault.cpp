// The self-test fault switch. Built twice: with ZEPH_SELFTEST_FAULTS for the
// static twin the unit tests link, and without it for the shared library,
// where no fault can be switched on.
#include "gm/selftest_fault.hpp"

#ifdef ZEPH_SELFTEST_FAULTS
#include <atomic>
#endif

namespace zeph::gm::selftest {

#ifdef ZEPH_SELFTEST_FAULTS

namespace {
std::atomic<Fault> g_fault{Fault::kNone};
}

bool Faulty(Fault f) { return f != Fault::kNone && g_fault.load() == f; }
void SetSelftestFault(Fault f) { g_fault.store(f); }

#else

bool Faulty(Fault) { return false; }

#endif

}  // namespace zeph::gm::selftest
