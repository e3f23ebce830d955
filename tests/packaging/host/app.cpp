// A host of the installed library: looks an account up through the library and turns a
// failure into the library's JSON answer, as the README's host does.
#include <iostream>

#include <systemutilities/LinuxUserSystem.h>
#include <tarvicexception/TvcException.h>

int main(int argc, char** argv) {
    const char* name = argc > 1 ? argv[1] : "root";
    try {
        unsigned int uid = 0, gid = 0;
        bool found = systemutilities::LinuxUserSystem::getUserIds(name, &uid, &gid);
        std::cout << name << ": " << (found ? "found, uid " + std::to_string(uid) : "not found") << "\n";
        return 0;
    } catch (tarvicexception::TvcException& e) {
        std::cout << name << ": " << e.getJsonAnswer() << "\n";
        return 1;
    }
}
