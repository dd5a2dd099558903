// Prints the tables of the configuration keys, one row a line, for the tests of the manual.
#include "config/ConfigKeys.h"

#include <iostream>

namespace {

using keywarden::KeyKind;
using keywarden::KeyRow;
using keywarden::KeyTable;

const char* kindOf(const KeyRow& row) {
    switch (row.kind) {
        case KeyKind::Text:
            return "text";
        case KeyKind::Switch:
            return "switch";
        case KeyKind::Path:
            return "path";
        case KeyKind::Number:
            return "number";
    }
    return "";
}

void print(const char* file, const KeyTable& table) {
    for (const KeyRow& row : table)
        std::cout << file << '\t' << row.name << (row.numbered ? ".N" : "") << '\t' << kindOf(row) << '\t'
                  << (row.need == keywarden::Need::Required ? "required" : "optional") << '\t' << row.lowest
                  << '\t' << row.highest << '\t' << row.absent << '\t' << row.instead << '\t' << row.unit
                  << '\t' << row.help << '\n';
}

}  // namespace

int main() {
    print("daemon", keywarden::daemonKeys());
    print("service", keywarden::serviceKeys());
    print("settings", keywarden::settingsKeys());
    return std::cout.flush() ? 0 : 1;
}
