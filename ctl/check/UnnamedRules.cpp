#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>

#include "config/InternalCertificatesAccessor.h"
#include "ctl/check/Rules.h"
#include "ctl/check/StoredPair.h"
#include "stores/CertificateId.h"

namespace keywardctl::check {

namespace {

namespace fs = std::filesystem;
using keywarden::InternalCertificatesAccessor;

constexpr std::size_t kIdLength = 10;

/// The paths of one certificate's files, by what they are called behind its id.
using Files = std::map<std::string, std::string>;
/// By what the certificate is called: its id, or "<id>.kept" where a new one got the id.
using Certificates = std::map<std::string, Files>;

/// Without the slash at its end, as findings name it.
std::string folderOf(const InternalCertificatesAccessor& store) {
    return fs::path(store.certificateDirectoryPath()).parent_path().string();
}

void addFile(const std::string& folder, const std::string& name, Certificates& found) {
    const std::string id = name.substr(0, kIdLength);
    const std::string ending = name.substr(id.size());
    if (!keywarden::isCertificateId(id))
        return;
    if (ending == ".kept" || ending == ".kept.key")
        found[id + ".kept"][ending.substr(5)] = (fs::path(folder) / name).string();
    else if (ending.empty() || ending == ".key" || ending == ".network" || ending == ".overwrite")
        found[id][ending] = (fs::path(folder) / name).string();
}

void addFiles(const std::string& folder, Certificates& found, Report& report) {
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        addFile(folder, entry->path().filename().string(), found);
    if (error && error != std::errc::no_such_file_or_directory && error != std::errc::not_a_directory)
        report.addNotLookedAt(folder, std::strerror(error.value()));
}

Certificates unnamedIn(const InternalCertificatesAccessor& store, const std::string& service,
                       Report& report) {
    Certificates found;
    addFiles(folderOf(store), found, report);
    addFiles(store.cachedDirectoryPath(), found, report);
    // After the folders: what an installation has put there meanwhile is named by now.
    found.erase(activeIdOf(service));
    return found;
}

// The daemon may be renewing the certificate right now: what is unnamed once only is of an installation under
// way.
Certificates settledUnnamedIn(const InternalCertificatesAccessor& store, const std::string& service,
                              Report& report) {
    Certificates found = unnamedIn(store, service, report);
    if (found.empty())
        return found;
    const Certificates again = unnamedIn(store, service, report);
    for (auto one = found.begin(); one != found.end();)
        one = again.count(one->first) == 0 ? found.erase(one) : std::next(one);
    return found;
}

std::string adviceFor(const std::string& name, const Files& files,
                      const InternalCertificatesAccessor& store) {
    if (files.count("") == 0 || files.count(".key") == 0)
        return "Without a certificate and its key beside each other none can be put in force: remove them.";
    if (!keywarden::isCertificateId(name))
        return "A new certificate got its id. To put this one in force, move " + files.at("") + " and " +
               files.at(".key") + " over the files of that id while the daemon is stopped; else remove them.";
    return "To put it in force, write its id into '" + store.activePath() +
           "', without a line end, and reload the service; else remove them.";
}

}  // namespace

void checkUnnamedFiles(const CheckedService& service, Report& report) {
    const InternalCertificatesAccessor store(service.id, "server");
    for (const auto& [name, files] : settledUnnamedIn(store, service.id, report)) {
        std::string list;
        for (const auto& [ending, path] : files)
            list += (list.empty() ? "" : ", ") + quoted(path);
        report.add(Code::NotInForce, {folderOf(store)},
                   "files of a certificate that is not in force: " + list, adviceFor(name, files, store));
    }
}

}  // namespace keywardctl::check
