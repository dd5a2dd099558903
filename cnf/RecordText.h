#pragma once

#include <string>
#include <utility>
#include <vector>

#include "cnf/V3Ext.h"

namespace kwdata {

/// Appends "key value\n" to `text`.
void appendLine(std::string& text, const std::string& key, const std::string& value);

/// Appends one "v3Extention<n> ..." line an extension, counting from 0.
void appendExtensions(std::string& text, const std::vector<v3Ext>& extensions);

/// The key words and values of a record's text form, in order. A line that starts with neither one of `keys`
/// nor "v3Extention<n>" continues the value before it: printed extension values have several lines.
std::vector<std::pair<std::string, std::string>> splitRecord(const std::string& text,
                                                             const std::vector<std::string>& keys);

/// Whether the key is "v3Extention" with a number.
bool isExtensionKey(const std::string& key);

/// The decimal number a text starts with; `fallback` when there is none or it does not fit.
int numberOr(const std::string& text, int fallback);

}  // namespace kwdata
