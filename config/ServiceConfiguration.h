#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config/ServiceNetworkConfiguration.h"

namespace keywarden {

class ConfigValues;

/// One service's configuration file, in typed fields.
class ServiceConfiguration {
  public:
    /// Reads the file; throws what reload() throws.
    explicit ServiceConfiguration(const std::string& serviceId);

    /// Reads the file again. Throws std::runtime_error at the first value that does not stand; the fields
    /// read before it are then new, the others old.
    void reload();

    /// The identifiers of all configured services, in directory order. Throws std::runtime_error.
    static std::vector<std::string> getServiceList();

    [[nodiscard]] std::string getServiceConfigFile() const;

    // Roots of the stores below the service configuration directory.
    [[nodiscard]] std::string getTrustedClientsPath() const;
    [[nodiscard]] std::string getCAPath() const;
    [[nodiscard]] std::string getServerPath() const;

    [[nodiscard]] const std::string& getServiceId() const { return serviceId_; }
    [[nodiscard]] const std::string& getServiceName() const { return serviceName_; }
    [[nodiscard]] const std::string& getManagementGroup() const { return managementGroup_; }
    [[nodiscard]] const std::string& getKeyGroup() const { return keyGroup_; }
    [[nodiscard]] const std::string& getCallbackScript() const { return callbackScript_; }
    [[nodiscard]] const std::string& getCallbackLibrary() const { return callbackLibrary_; }
    /// Seconds after which a run of the callback script is ended, 1 to 86400; 0: never.
    [[nodiscard]] std::uint32_t getCallbackTimeoutSecs() const { return callbackTimeout_; }
    [[nodiscard]] bool isServer() const { return server_; }
    [[nodiscard]] bool isCA() const { return ca_; }
    [[nodiscard]] bool isTrustedClients() const { return trustedClients_; }
    [[nodiscard]] const std::string& getCnfHookFile() const { return cnfHookFile_; }
    [[nodiscard]] const std::string& getCnfFile() const { return cnfFile_; }
    [[nodiscard]] bool isSelfSignedGeneration() const { return selfSignedGeneration_; }
    [[nodiscard]] bool isSelfSignedOnExpiration() const { return selfSignedOnExpiration_; }
    [[nodiscard]] std::int32_t getSelfSignedValidity() const { return selfSignedValidity_; }  ///< days
    [[nodiscard]] std::int32_t getSelfSignedValidityOffset() const {
        return selfSignedValidityOffset_;
    }  ///< days
    [[nodiscard]] bool isCASignedGeneration() const { return caSignedGeneration_; }
    [[nodiscard]] bool isCASignedOnExpiration() const { return caSignedOnExpiration_; }
    [[nodiscard]] const std::string& getCAServiceId() const { return caServiceId_; }
    [[nodiscard]] std::int32_t getCASignedValidity() const { return caSignedValidity_; }  ///< days
    [[nodiscard]] std::int32_t getCASignedValidityOffset() const {
        return caSignedValidityOffset_;
    }  ///< days
    /// Seconds, below 86400.
    [[nodiscard]] std::uint32_t getCertDailyExpiryChkTimeOffsetSecs() const {
        return dailyExpiryCheckOffset_;
    }
    [[nodiscard]] bool isNetworkInvalidRevokePKIcert() const { return networkInvalidRevokePKIcert_; }
    [[nodiscard]] bool isOpensslEngine() const { return opensslEngine_; }
    [[nodiscard]] bool isIncludeFQDN() const { return includeFQDN_; }
    /// In file order; every name has a record.
    [[nodiscard]] const std::vector<std::string>& getNetworkInterfaceList() const { return interfaceList_; }
    /// Throws std::out_of_range ("map::at") for an interface that is not listed.
    [[nodiscard]] const ServiceNetworkConfiguration& getNetworkInterfaces(const std::string& name) const;
    [[nodiscard]] std::uint16_t getMaximumCA() const { return maximumCA_; }  ///< 0: no limit
    [[nodiscard]] bool isUniqueCaByCn() const { return uniqueCaByCn_; }
    [[nodiscard]] std::uint16_t getMaximumTrustedClients() const {
        return maximumTrustedClients_;
    }  ///< 0: no limit
    [[nodiscard]] bool isUniqueTrustedClientByCn() const { return uniqueTrustedClientByCn_; }

    /// Clears the four address flags of every interface; regenerateIfOff stays.
    void setExcludeIpForAllNetworkInterfaces();

  private:
    // The steps of reload(), in their order.
    void readOwner(const ConfigValues& values);
    void readCallbackTimeout(const ConfigValues& values);
    void readDailyExpiryCheck(const ConfigValues& values);
    void readRequestSettings(const ConfigValues& values);
    void readSelfSigned(const ConfigValues& values);
    void readCASigned(const ConfigValues& values);
    void readInterfaces(const ConfigValues& values);
    void readCAStore(const ConfigValues& values);
    void readTrustedClientsStore(const ConfigValues& values);

    std::string serviceId_;
    std::string serviceName_;
    std::string managementGroup_;
    std::string keyGroup_;
    std::string callbackScript_;
    std::string callbackLibrary_;
    std::uint32_t callbackTimeout_ = 0;
    bool server_ = false;
    bool ca_ = false;
    bool trustedClients_ = false;
    std::string cnfHookFile_;
    std::string cnfFile_;
    bool selfSignedGeneration_ = false;
    bool selfSignedOnExpiration_ = false;
    std::int32_t selfSignedValidity_ = 0;
    std::int32_t selfSignedValidityOffset_ = 0;
    bool caSignedGeneration_ = false;
    bool caSignedOnExpiration_ = false;
    std::string caServiceId_;
    std::int32_t caSignedValidity_ = 0;
    std::int32_t caSignedValidityOffset_ = 0;
    std::uint32_t dailyExpiryCheckOffset_ = 0;
    bool networkInvalidRevokePKIcert_ = false;
    bool opensslEngine_ = false;
    bool includeFQDN_ = false;
    std::map<std::string, ServiceNetworkConfiguration> interfaces_;
    std::vector<std::string> interfaceList_;
    std::uint16_t maximumCA_ = 0;
    bool uniqueCaByCn_ = false;
    std::uint16_t maximumTrustedClients_ = 0;
    bool uniqueTrustedClientByCn_ = false;
};

}  // namespace keywarden
