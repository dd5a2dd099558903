#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>

namespace keywarden {

/// Owns one certificate. Moved, never copied. That there was no memory to read one is a std::bad_alloc, and
/// never the std::runtime_error of a text that holds none.
class X509_T {
  public:
    X509_T() = default;                                                ///< no certificate
    explicit X509_T(X509* certificate) : certificate_(certificate) {}  ///< takes ownership
    /// The first PEM certificate of a file. Throws std::runtime_error.
    explicit X509_T(const std::string& path);
    /// The first PEM certificate of a text. Throws std::runtime_error.
    [[nodiscard]] static X509_T fromPem(const std::string& pem);

    [[nodiscard]] X509* get() const { return certificate_.get(); }

    /// Throws std::runtime_error.
    [[nodiscard]] std::string toPem() const;

    /// Byte-equal PEM texts; false, after an ERR line, when one cannot be written.
    bool operator==(const X509_T& other) const;

  private:
    struct Free {
        void operator()(X509* certificate) const;
    };
    std::unique_ptr<X509, Free> certificate_;
};

}  // namespace keywarden
