// Names in one line, and the records that hold them.
#include "cnf/CCSRData.h"
#include "cnf/CCertificateData.h"
#include "cnf/CDistinguishedName.h"
#include "fuzz/Fuzz.h"

using kwdata::CCertificateData;
using kwdata::CCSRData;
using kwdata::CDistinguishedName;

namespace {

template <typename Record>
std::string written(const Record& record) {
    std::string text;
    record.to(text);
    return text;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::textOf(data, size);
    const CDistinguishedName name = CDistinguishedName::from(text);
    const std::string line = written(name);
    fuzz::require(written(CDistinguishedName::from(line)) == line, "a written name is read back as the same");
    (void)CCertificateData::from(written(CCertificateData::from(text)));
    (void)CCSRData::from(written(CCSRData::from(text)));
    (void)kwdata::v3Ext::from(written(kwdata::v3Ext::from(text)));
    return 0;
}
