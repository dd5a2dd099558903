// The id list and the map from ids to common names.
#include "fuzz/Fuzz.h"
#include "stores/CertificateIdCnMap.h"
#include "stores/CertificateIdList.h"

using keywarden::CertificateIdCnMap;
using keywarden::CertificateIdList;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::textOf(data, size);
    const std::string file = fuzz::fileWith(text);
    const CertificateIdList list(file);
    const CertificateIdCnMap map(file);

    std::string lines;
    for (const std::string& id : list.toArray()) {
        fuzz::require(list.exist(id), "a listed id exists");
        lines += id + "\n";
    }
    const CertificateIdList again(fuzz::fileWith(lines));
    fuzz::require(again.toArray() == list.toArray(), "a list reads back");
    for (const auto& [id, name] : map.entries())
        fuzz::require(map.certificateIdExist(id), "an id of the map exists");
    fuzz::require(map.toCertificateIdList().toArray().size() == map.size(),
                  "an id of the map is listed once");
    return 0;
}
