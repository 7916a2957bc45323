// Helpers shared by the test suites: capture of the debugger output and an
// invalid-parameter handler that throws instead of aborting.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "tessel/platform/DebugOutput.h"
#include "tessel/platform/InvalidParameter.h"

namespace TesselTest {

// Collects every text written to the debugger output while it lives. One at a time.
class DebugOutputCapture {
  public:
    DebugOutputCapture();
    ~DebugOutputCapture();
    DebugOutputCapture(const DebugOutputCapture&) = delete;
    DebugOutputCapture& operator=(const DebugOutputCapture&) = delete;

    // The texts written so far, in order.
    std::vector<std::string> texts() const;
    // All texts joined.
    std::string joined() const;

  private:
    Tessel::Platform::DebugOutputSink m_previous;
};

// Names the cases of a parameterised suite after their parameter's name member:
// INSTANTIATE_TEST_SUITE_P(Cases, Suite, Values(...), TesselTest::ParamName()).
struct ParamName {
    template <class Info>
    std::string operator()(const Info& info) const {
        return info.param.name;
    }
};

// Thrown by the handler that InvalidParameterThrows installs.
struct InvalidParameterError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Installs an invalid-parameter handler that throws InvalidParameterError while it lives.
class InvalidParameterThrows {
  public:
    InvalidParameterThrows();
    ~InvalidParameterThrows();
    InvalidParameterThrows(const InvalidParameterThrows&) = delete;
    InvalidParameterThrows& operator=(const InvalidParameterThrows&) = delete;

  private:
    Tessel::Platform::InvalidParameterHandler m_previous;
};

}  // namespace TesselTest
