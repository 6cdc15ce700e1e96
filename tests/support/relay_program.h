// relay_program.h - gwrelay as a child process, ready for devices and users.
#pragma once

#include <cstdio>

#include "child.h"

struct relay_program {
    child process;
    uint16_t manager = 0, control = 0, data = 0, front = 0, admin = 0;

    // On ports of the kernel's choice unless the arguments say others.
    explicit relay_program(const std::vector<std::string>& arguments = {})
        : process(command_line(arguments)) {
        eventually([&] { return process.output().ends_with('\n') || !process.running(); });
        sscanf(process.output().c_str(),
               "ready manager=%hu control=%hu data=%hu front=%hu admin=%hu", &manager, &control,
               &data, &front, &admin);
    }
    static std::vector<std::string> command_line(const std::vector<std::string>& arguments) {
        std::vector<std::string> all = {
            GWRELAY_PATH,         "--manager-port=0", "--control-port=0",
            "--data-port=0",      "--front-port=0",   "--admin-port=0",
            "--config=/dev/null", "--drain=0",        "-v"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
};
