// A callback library that was not built with the header of this tree: its object is a table of functions,
// written by hand as the common C++ ABI lays it out, and it says that it knows a later version of the
// interface.

#include <string>
#include <vector>

#include "tests/plugins/Record.h"

namespace {

struct Object {
    const void* const* table;
};

void nothing(Object* /*self*/) {}
void started(Object* /*self*/) {
    record("started");
}
void stopped(Object* /*self*/) {
    record("stopped");
}
void allStarted(Object* /*self*/) {
    record("allStarted");
}
void newGenerated(Object* /*self*/, const std::string& id) {
    record("newGenerated " + id);
}
void updateValidity(Object* /*self*/, int validIn, int expireIn) {
    record(validIn == -10 && expireIn == 19 ? "updateValidity -10 19" : "updateValidity");
}
void newExternal(Object* /*self*/, const std::string& store, const std::string& id) {
    record("newExternal " + store + " " + id);
}
void revokedOne(Object* /*self*/, const std::string& store, const std::string& id) {
    record("revokedOne " + store + " " + id);
}
void revokedSeveral(Object* /*self*/, const std::string& store, const std::vector<std::string>& ids) {
    record("revokedSeveral " + store + " " + ids.back());
}
void later(Object* /*self*/) {
    record("an event of a later version");
}

template <typename Function>
const void* address(Function* function) {
    return reinterpret_cast<const void*>(function);
}

// Two destructors stand in front of the operations.
const void* const kTable[] = {
    address(nothing),    address(nothing),        address(started),        address(stopped),
    address(allStarted), address(newGenerated),   address(updateValidity), address(newExternal),
    address(revokedOne), address(revokedSeveral), address(later),
};

}  // namespace

extern "C" const int keywarden_callbacks_version = 2;

extern "C" Object* create(const std::string& /*serviceId*/) {
    static Object object{kTable};
    return &object;
}

extern "C" void destroy(Object* /*object*/) {
    record("destroy");
}
