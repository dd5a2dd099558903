#pragma once

#include <string>

namespace kwdata {

/// One X.509 v3 extension. In request settings: obj_id is the name ("keyUsage"), short_name the value in
/// OpenSSL's configuration syntax (x509v3_config(5)), long_name a copy of it, comment empty.
struct v3Ext {
    std::string obj_id;
    std::string short_name;
    std::string long_name;
    std::string comment;

    v3Ext() = default;
    v3Ext(std::string objId, std::string shortName, std::string longName, std::string commentText);

    /// "obj_id ..|short_name ..|long_name ..|comment ..\n" into `text`.
    void to(std::string& text) const;
    static v3Ext from(const std::string& text);
};

}  // namespace kwdata
