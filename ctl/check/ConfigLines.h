#pragma once

#include <map>
#include <string>
#include <vector>

namespace keywardctl::check {

/// Whose reader a file is for.
enum class Dialect {
    Configuration,  ///< the daemon's and the services' files: an indented line with a comment sets nothing
    Settings,       ///< request settings
};

/// One line as it stands, and what the daemon's reader makes of it.
struct ConfigLine {
    unsigned number = 0;  ///< from 1
    std::string raw;
    bool sets = false;  ///< the reader takes a key from it, which may be empty
    std::string key;
    std::string value;
};

/// A configuration file line by line. Each line goes through the daemon's own reader, so that what it makes
/// of the file and what is told about its lines cannot differ.
class ConfigLines {
  public:
    ConfigLines() = default;
    ConfigLines(std::string file, const std::string& content, Dialect dialect);
    /// Neither blocks nor reads without end, whatever the path names. Throws std::runtime_error.
    [[nodiscard]] static ConfigLines read(const std::string& file, Dialect dialect);

    [[nodiscard]] const std::string& file() const { return file_; }
    [[nodiscard]] const std::vector<ConfigLine>& lines() const { return lines_; }
    /// As the daemon has them: of a repeated key the first counts.
    [[nodiscard]] std::map<std::string, std::string> values() const;
    /// The line that counts for the key; 0 when no line sets it.
    [[nodiscard]] unsigned lineOf(const std::string& key) const;

  private:
    std::string file_;
    std::vector<ConfigLine> lines_;
};

/// What of the line stands before its comment, without the blanks around it.
[[nodiscard]] std::string bodyOf(const std::string& raw);

}  // namespace keywardctl::check
