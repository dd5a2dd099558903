#include "CheckedDevice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "ctl/check/Checker.h"
#include "testsupport/Child.h"
#include "testsupport/TestClock.h"
#include "testsupport/TestDevice.h"
#include "x509/Inspection.h"

using testsupport::Sandbox;

namespace {

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);)
        lines.push_back(line);
    return lines;
}

void require(bool done, const std::string& what) {
    if (!done)
        throw std::runtime_error("cannot " + what);
}

}  // namespace

std::string CheckedDevice::root() {
    return testsupport::TestDevice::get().sandbox().path();
}

std::string CheckedDevice::withRoot(std::string text) {
    replaceAll(text, "~", root());
    return text;
}

std::string CheckedDevice::withoutRoot(std::string text) {
    replaceAll(text, root(), "~");
    return text;
}

CheckedDevice::CheckedDevice() {
    setUsers("root:x:0:0::/:/bin/sh\nkeyuser:x:4242:4242::/:/bin/sh\noperator:x:4300:4300::/:/bin/sh\n");
    setGroups(
        "root:x:0:\nkeyuser:x:4242:\nkwnotify:x:4250:keyuser,operator\nkwmgmt:x:4251:keyuser\n"
        "kwkey:x:4252:keyuser\nkwforeign:x:4253:operator\n");
    write("config.daemon",
          "keywardDirectory ~/store\nnotificationGroup kwnotify\n"
          "serviceConfigDirectory ~/services\nnamePipesDirectory ~/pipes\n"
          "daemonUser keyuser\nscriptsDirectory ~/scripts\n"
          "lockFile ~/run/keywardd.lock\npidFile ~/run/keywardd.pid\n");
    write("services/web.conf",
          "managmentGroup kwmgmt\nkeyGroup kwkey\ncallbackScript ~/owner.sh\n"
          "server yes\nselfSignedGeneration yes\ncnfFile ~/web.cnf\ncallbackTimeoutSecs 60\n");
    write("web.cnf",
          "CONFIG_KEY PRIME256V1\nC DE\nST BY\nL Hof\nO Acme\nOU Ops\nCN device.test\n"
          "basicConstraints CA:FALSE\n");
    write("owner.sh", "#!/bin/sh\n", 0755);
    write("scripts/network.sh",
          "#!/bin/sh\necho interface.0 eth0\necho ipv4.0.0 10.0.0.5\necho fqdn.0 unit42.test\n", 0755);
    folder("run", 0755, kUser, kUser);
    rights(".", 0755, kUser, kUser);
}

void CheckedDevice::write(const std::string& name, const std::string& content, unsigned mode) const {
    sandbox_.write(name, withRoot(content), mode);
}

void CheckedDevice::remove(const std::string& name) const {
    std::filesystem::remove_all(sandbox_.path(name));
}

void CheckedDevice::folder(const std::string& name, unsigned mode, unsigned user, unsigned group) const {
    std::filesystem::create_directories(sandbox_.path(name));
    rights(name, mode, user, group);
}

void CheckedDevice::rights(const std::string& name, unsigned mode, unsigned user, unsigned group) const {
    const std::string path = sandbox_.path(name);
    require(::chown(path.c_str(), user, group) == 0, "give away " + path);
    require(::chmod(path.c_str(), static_cast<mode_t>(mode)) == 0, "set the mode of " + path);
}

void CheckedDevice::setLine(const std::string& name, unsigned line, const std::string& text) const {
    std::vector<std::string> lines = linesOf(Sandbox::read(sandbox_.path(name)));
    lines.at(line - 1) = text;
    std::string content;
    for (const std::string& one : lines)
        content += one + "\n";
    write(name, content);
}

void CheckedDevice::append(const std::string& name, const std::string& line) const {
    write(name, Sandbox::read(sandbox_.path(name)) + line + "\n");
}

std::string CheckedDevice::storePair(const testsupport::CertificateOptions& options) const {
    const testsupport::IssuedCertificate pair = testsupport::makeCertificate(options);
    const std::string id = subjectNameHash(keywarden::X509_T::fromPem(pair.certificatePem)) + ".0";
    folder("store", 0711, kUser, kUser);
    for (const char* const name : {"store/web", "store/web/server", "store/web/server/.cacheddata"})
        folder(name, 0711, kUser, kManagement);
    const std::string server = "store/web/server/";
    write(server + id, pair.certificatePem + "\n");
    write(server + id + ".key", pair.keyPem + "\n");
    write(server + ".cacheddata/active.txt", id);
    rights(server + id, 0644, kUser, kManagement);
    rights(server + id + ".key", 0640, kUser, kKeys);
    rights(server + ".cacheddata/active.txt", 0644, kUser, kManagement);
    return id;
}

std::string CheckedDevice::storeTrusted(const std::string& store,
                                        const testsupport::CertificateOptions& options) const {
    const std::string pem = testsupport::makeCertificate(options).certificatePem;
    std::string id = subjectNameHash(keywarden::X509_T::fromPem(pem)) + ".0";
    folder("store", 0711, kUser, kUser);
    for (const std::string& name : {std::string("store/web"), "store/web/" + store})
        folder(name, 0711, kUser, kManagement);
    write("store/web/" + store + "/" + id, pem);
    rights("store/web/" + store + "/" + id, 0644, kUser, kManagement);
    return id;
}

void CheckedDevice::mount() const {
    testsupport::mountOver(accounts_.path("passwd"), "/etc/passwd");
    testsupport::mountOver(accounts_.path("group"), "/etc/group");
    testsupport::mountOver(sandbox_.path(), root());
    testsupport::mountEmptyFolder("/run");
    if (!hasReadyFolder_)
        return;
    std::filesystem::create_directories("/run/ready");
    require(::chown("/run/ready", kUser, kUser) == 0, "give away /run/ready");
}

std::string CheckedDevice::on(const std::function<std::string()>& body) const {
    const auto result = testsupport::inPrivateMounts([this] { mount(); },
                                                     [&] {
                                                         if (now_)
                                                             testsupport::TestClock::set(*now_);
                                                         if (asNobody_)
                                                             testsupport::becomeNobody();
                                                         return body();
                                                     });
    if (!result)
        throw std::runtime_error("private mounts are refused");
    return withoutRoot(*result);
}

std::vector<std::string> CheckedDevice::check(const std::vector<std::string>& services) const {
    return findingLines(on([&services] { return reportText(keywardctl::check::checkDevice(services)); }));
}

std::vector<std::string> findingLines(const std::string& text) {
    std::vector<std::string> lines = linesOf(text);
    require(!lines.empty(), "do without a summary");
    lines.pop_back();
    std::vector<std::string> findings;
    for (std::size_t index = 0; index < lines.size(); index += 2) {
        const bool isAdvised =
            index + 1 < lines.size() && lines[index + 1].rfind("    ", 0) == 0 && lines[index + 1].size() > 4;
        require(isAdvised, "do without advice: " + lines[index]);
        findings.push_back(lines[index]);
    }
    return findings;
}

bool canCheckDevices() {
    static const bool can =
        ::geteuid() == 0 && testsupport::inPrivateMounts([] {}, [] { return ""; }).has_value();
    return can;
}
