// A callback library with a relocation in its text, as one that was built without -fPIC has: the loader
// writes there, so that page is no longer what the file holds.

#include <memory>
#include <string>

#include "tests/plugins/Record.h"
#include "testsupport/SilentCallbacks.h"

// Declared first: a constant would be this file's alone.
extern "C" const char keywardOwnersWord[8];
extern "C" const char keywardOwnersWord[8] = "renewed";
extern "C" const char* const keywardWordInText;

#if __SIZEOF_POINTER__ == 8
#define POINTER ".quad"
#else
#define POINTER ".long"
#endif
__asm__(
    ".pushsection .text\n"
    ".balign 16\n"
    ".hidden keywardWordInText\n"
    ".globl keywardWordInText\n"
    "keywardWordInText: " POINTER
    " keywardOwnersWord\n"
    ".popsection\n");

namespace {

class Relocated : public testsupport::SilentCallbacks {
  public:
    void newGeneratedCertificate(const std::string& /*id*/) override { record(keywardWordInText); }
};

}  // namespace

extern "C" keywarden::ServiceCallbacks* create(const std::string& /*serviceId*/) {
    return std::make_unique<Relocated>().release();
}

extern "C" void destroy(keywarden::ServiceCallbacks* object) {
    const std::unique_ptr<keywarden::ServiceCallbacks> owned(object);
}
