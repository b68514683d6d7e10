/// @file
/// Tests that make one system call fail: exactly the line that reports it must appear, and the object that
/// made the call must leak nothing.
#pragma once

#include "faults.h"
#include "one_interface.h"
#include "recorder.h"
#include "wait.h"

#include <UdpSocket/udpsocket.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

/// The line without its number, which only those of the TCP classes keep.
inline std::string line(const std::string& site, const std::string& configured, const std::string& call,
                        int code) {
    return "SocketError<UdpSocket/" + site + ",(" + configured + ")>:\n\tfunction[" + call + "],code[" +
           std::to_string(code) + "," + std::strerror(code) + "]\n";
}
inline std::string udp(const std::string& function, const std::string& configured, const std::string& call,
                       int code) {
    return line("udpsocket.cpp," + function + ",N", configured, call, code);
}
inline std::string tcp(const std::string& site, const std::string& configured, const std::string& call,
                       int code) {
    return line("tcpsocket.cpp," + site, configured, call, code);
}
inline std::string withoutUdpNumbers(const std::string& text) {
    static constexpr std::string_view kSource = "udpsocket.cpp,";
    std::string result;
    std::size_t done = 0;
    for (std::size_t at; (at = text.find(kSource, done)) != std::string::npos;) {
        const std::size_t number = text.find(',', at + kSource.size()) + 1; // behind the function
        result += text.substr(done, number - done) + "N";
        done = text.find(',', number);
    }
    return result + text.substr(done);
}

struct FaultCase {
    const char* call;
    int code;
    std::string expected; // on standard error
    int first = 1;
    std::string printed{}; // part of what is on standard output
    int count = 1;
};

class FaultTest : public OneInterface {
protected:
    /// @param use makes the object, has it make the call, and returns what is to be destroyed
    template <class Use>
    static void checkFault(const FaultCase& faultCase, Use use) {
        SCOPED_TRACE(std::string(faultCase.call) + ", number " + std::to_string(faultCase.first));
        const ProcessResources before = ProcessResources::now();
        std::string errors;
        std::string printed;
        bool hit = false;
        {
            const Output output;
            {
                const Fault fault(faultCase.call, faultCase.code, faultCase.first, faultCase.count);
                [[maybe_unused]] const auto kept = use();
                hit = comesTrue([&] {
                    return fault.hit() && withoutUdpNumbers(output.err()) == faultCase.expected &&
                           output.out().find(faultCase.printed) != std::string::npos;
                });
            }
            errors = output.err();
            printed = output.out();
        }
        EXPECT_TRUE(hit);
        EXPECT_EQ(withoutUdpNumbers(errors), faultCase.expected);
        EXPECT_NE(printed.find(faultCase.printed), std::string::npos) << printed;
        EXPECT_TRUE(comesTrue([&] { return ProcessResources::now() == before; }))
            << ProcessResources::now().descriptors - before.descriptors << " descriptors and "
            << ProcessResources::now().threads - before.threads << " threads left";
    }

    static inline const unsigned int s_local = net::transAddr("10.1.0.1");
    static inline Recorder s_recorder;
};
