// Shared by all measurements: make requests beforehand, time them one by one, and say how far they
// are.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/p4runtime/Samples.h"
#include "tests/support/TestController.h"

namespace Bench {

constexpr std::chrono::minutes requestTimeout{5};

using Requests = std::vector<p4::v1::WriteRequest>;
using MadeUpdate = std::function<p4::v1::Update(uint64_t i)>;  // i counts from 0, over all requests

Requests requestsOf(const TestSupport::TestController& controller, size_t count, size_t batch,
                    const MadeUpdate& update);

// The round trip. Throws std::runtime_error when the request fails: its time says nothing.
Clock::duration written(TestSupport::TestController& controller,
                        const p4::v1::WriteRequest& request);

void progress(const std::string& what);  // to people at a terminal; "": nothing more

}  // namespace Bench
