#include "x509/ExtensionText.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <array>
#include <charconv>
#include <map>
#include <optional>

#include "support/Debug.h"
#include "support/Log.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"
#include "x509/Validation.h"

namespace keywarden {

namespace {

constexpr int kIpv4Bytes = 4;
constexpr int kIpv6Bytes = 16;

bool failed(const char* text) {
    Log::write(SeverityError, text);
    ERR_clear_error();
    return false;
}

/// Collects names under their labels; the numbers count DNS names and addresses of either family.
class NameList {
  public:
    void add(const GENERAL_NAME* name) {
        int kind = 0;
        const void* value = GENERAL_NAME_get0_value(name, &kind);
        if (kind == GEN_DIRNAME) {
            texts_["DirName"] = _subject_as_line(static_cast<const X509_NAME*>(value));
        } else if (kind == GEN_DNS || kind == GEN_EMAIL || kind == GEN_IPADD) {
            addString(kind, static_cast<const ASN1_STRING*>(value));
        } else {
            traceUnknown();
        }
    }

    [[nodiscard]] std::string joined() const {
        std::string text;
        for (const auto& [label, name] : texts_) {
            text.append(text.empty() ? "" : ", ").append(label).append(":").append(name);
        }
        return text;
    }

  private:
    static void traceUnknown() { debugTrace("could not recognize subject alternate name."); }

    void addString(int kind, const ASN1_STRING* value) {
        const unsigned char* data = ASN1_STRING_get0_data(value);
        if (data == nullptr) {
            Log::write(SeverityError, "ASN1_STRING_get0_data returns NULL");
            return;
        }
        const int size = ASN1_STRING_length(value);
        const std::string bytes(reinterpret_cast<const char*>(data), static_cast<std::size_t>(size));
        if (kind == GEN_DNS) {
            texts_["DNS." + std::to_string(++dnsCount_)] = bytes;
        } else if (kind == GEN_EMAIL) {
            texts_["Email"] = bytes;
        } else if (size == kIpv4Bytes || size == kIpv6Bytes) {
            texts_["IP." + std::to_string(++ipCount_)] = size == kIpv4Bytes ? ipv4(data) : ipv6(data);
        } else {
            traceUnknown();
        }
    }

    static std::string ipv4(const unsigned char* bytes) {
        std::string text;
        for (int index = 0; index < kIpv4Bytes; ++index) {
            text += (index == 0 ? "" : ".") + std::to_string(bytes[index]);
        }
        return text;
    }

    // No group of zeros is compressed: this form is for people who compare names group by group.
    static std::string ipv6(const unsigned char* bytes) {
        std::string text;
        for (int index = 0; index < kIpv6Bytes; index += 2) {
            const unsigned group = (static_cast<unsigned>(bytes[index]) << 8U) | bytes[index + 1];
            std::array<char, 4> digits{};
            const std::to_chars_result result = std::to_chars(digits.begin(), digits.end(), group, 16);
            text += index == 0 ? "" : ":";
            text.append(digits.begin(), result.ptr);
        }
        return text;
    }

    std::map<std::string, std::string> texts_;
    int dnsCount_ = 0;
    int ipCount_ = 0;
};

std::string nameOf(const ASN1_OBJECT* object) {
    const int nid = OBJ_obj2nid(object);
    if (nid != NID_undef) {
        return OBJ_nid2sn(nid);
    }
    std::array<char, 256> dotted{};
    OBJ_obj2txt(dotted.data(), static_cast<int>(dotted.size()), object, 1);
    return dotted.data();
}

std::string hexadecimal(const ASN1_OCTET_STRING* bytes) {
    static const char digits[] = "0123456789ABCDEF";
    const unsigned char* data = ASN1_STRING_get0_data(bytes);
    std::string text;
    for (int index = 0; index < ASN1_STRING_length(bytes); ++index) {
        text += index == 0 ? "" : ":";
        text += digits[data[index] >> 4U];
        text += digits[data[index] & 0x0FU];
    }
    return text;
}

// What OpenSSL prints; nothing, after an ERR line, at a failure. An extension that OpenSSL does not know is
// no failure: its bytes are the value.
std::optional<std::string> valueOf(X509_EXTENSION* extension) {
    const MemoryWatch watch;
    const BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        failed("Error creating bio object");
        return std::nullopt;
    }
    const bool isPrinted = X509V3_EXT_print(bio.get(), extension, X509V3_EXT_DEFAULT, 0) == 1;
    watch.throwIfRefused();
    if (!isPrinted) {
        ERR_clear_error();
        const ASN1_OCTET_STRING* bytes = X509_EXTENSION_get_data(extension);
        if (bytes == nullptr) {
            failed("Error getting v3 extension data.");
            return std::nullopt;
        }
        return hexadecimal(bytes);
    }
    BUF_MEM* printed = nullptr;
    BIO_get_mem_ptr(bio.get(), &printed);
    if (printed == nullptr) {
        failed("BIO_get_mem_ptr buf returns NULL");
        return std::nullopt;
    }
    return printed->length == 0 ? std::string() : std::string(printed->data, printed->length);
}

bool writeExtension(X509_EXTENSION* extension, std::vector<kwdata::v3Ext>& out) {
    if (extension == nullptr) {
        return failed("Error retrieving v3extension from extension list");
    }
    const ASN1_OBJECT* object = X509_EXTENSION_get_object(extension);
    if (object == nullptr) {
        return failed("Error grtting v3extension object from certificate");
    }
    const std::optional<std::string> value = valueOf(extension);
    if (!value) {
        return false;
    }
    out.emplace_back(nameOf(object), *value, *value, "");
    return true;
}

}  // namespace

std::string subject_alt_names(const STACK_OF(X509_EXTENSION) * extensions) {
    if (extensions == nullptr) {
        failed("invalid v3extension list pointer");
        return std::string();
    }
    const MemoryWatch watch;
    const GeneralNamesPtr names(
        static_cast<GENERAL_NAMES*>(X509V3_get_d2i(extensions, NID_subject_alt_name, nullptr, nullptr)));
    watch.throwIfRefused();
    if (!names || sk_GENERAL_NAME_num(names.get()) == 0) {
        debugTrace("No subject alternate names found");
        ERR_clear_error();
        return std::string();
    }
    NameList list;
    for (int index = 0; index < sk_GENERAL_NAME_num(names.get()); ++index) {
        list.add(sk_GENERAL_NAME_value(names.get(), index));
    }
    return list.joined();
}

bool writeV3Extensions(const STACK_OF(X509_EXTENSION) * extensions, std::vector<kwdata::v3Ext>& out) {
    if (extensions == nullptr) {
        return failed("Error reading v3Extension list");
    }
    const int count = sk_X509_EXTENSION_num(extensions);
    if (count == 0) {
        return failed("No v3extensions found");
    }
    for (int index = 0; index < count; ++index) {
        if (!writeExtension(sk_X509_EXTENSION_value(extensions, index), out)) {
            return false;
        }
    }
    return true;
}

}  // namespace keywarden
