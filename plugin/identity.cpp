// The four identity entry points by which the SDK recognises this plugin.
#include <zarvel/aux.h>

#include "zarvel_aux_build_info.h"

namespace {

// Labels sit in a 13-character column followed by ": ". The Component line keeps its
// trailing blank.
constexpr char kBanner[] = "ZARVEL " ZARVEL_AUX_BUILD_VERSION "\n" ZARVEL_AUX_BUILD_NOTICE
                           "\n"
                           "\n"
                           "Component    : zarvel_aux \n"
                           "Revision     : " ZARVEL_AUX_BUILD_REVISION
                           "\n"
                           "\n"
                           "System       : " ZARVEL_AUX_BUILD_SYSTEM
                           "\n"
                           "Architecture : " ZARVEL_AUX_BUILD_ARCH
                           "\n"
                           "C Compiler   : " ZARVEL_AUX_BUILD_C_COMPILER
                           "\n"
                           "C++ Compiler : " ZARVEL_AUX_BUILD_CXX_COMPILER
                           "\n"
                           "Build Config : " ZARVEL_AUX_BUILD_CONFIG
                           "\n"
                           "\n"
                           "Contact      : " ZARVEL_AUX_BUILD_CONTACT
                           "\n"
                           "\n";

static_assert(sizeof(ZARVEL_AUX_BUILD_REVISION) == 41, "the revision is 40 hexadecimal digits");

}  // namespace

extern "C" {

ZARVEL_AUX_API const char* __plugin_name(void) { return "zarvel_aux"; }
ZARVEL_AUX_API const char* zarvel_aux_version(void) { return ZARVEL_AUX_BUILD_VERSION; }
ZARVEL_AUX_API const char* zarvel_aux_revision(void) { return ZARVEL_AUX_BUILD_REVISION; }
ZARVEL_AUX_API const char* zarvel_aux_meta(void) { return kBanner; }

}  // extern "C"
