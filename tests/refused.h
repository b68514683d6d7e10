/// @file
/// A call that the system refuses once: the line that says so appears, exactly and alone, and the object that
/// made the call leaves nothing behind.
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

struct Refusal {
    const char* call;
    int code;
    std::string expected; // on standard error
    int first = 1;
    std::string printed{}; // part of what is on standard output
    int count = 1;
};

class Refused : public OneInterface {
protected:
    /// @param use makes the object, has it make the call, and returns what is to be destroyed
    template <class Use>
    static void refuse(const Refusal& refusal, Use use) {
        SCOPED_TRACE(std::string(refusal.call) + ", number " + std::to_string(refusal.first));
        const Holdings before = Holdings::now();
        std::string errors;
        std::string printed;
        bool hit = false;
        {
            const Output output;
            {
                const Fault fault(refusal.call, refusal.code, refusal.first, refusal.count);
                [[maybe_unused]] const auto kept = use();
                hit = comesTrue([&] {
                    return fault.hit() && withoutUdpNumbers(output.err()) == refusal.expected &&
                           output.out().find(refusal.printed) != std::string::npos;
                });
            }
            errors = output.err();
            printed = output.out();
        }
        EXPECT_TRUE(hit);
        EXPECT_EQ(withoutUdpNumbers(errors), refusal.expected);
        EXPECT_NE(printed.find(refusal.printed), std::string::npos) << printed;
        EXPECT_TRUE(comesTrue([&] { return Holdings::now() == before; }))
            << Holdings::now().descriptors - before.descriptors << " descriptors and "
            << Holdings::now().threads - before.threads << " threads left";
    }

    static inline const unsigned int s_local = net::transAddr("10.1.0.1");
    static inline Recorder s_recorder;
};
