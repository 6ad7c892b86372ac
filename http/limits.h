#pragma once

#include <chrono>
#include <cstddef>

namespace qxphttp {

/// What the clients of the HTTP server may use. Root and the agent's own user have all of it for themselves; the others
/// share as much, and none of them gets more than its part.
struct Limits {
    unsigned int requests = 64;             // read or handled at once; one more is answered with 503
    unsigned int connections = 128;         // idle ones included; one more is answered with 503 and closed
    unsigned int user_connections = 32;     // of one user
    size_t body_bytes = size_t{256} << 20;  // of all requests together
    size_t user_body_bytes = size_t{128} << 20;
    std::chrono::seconds idle{30};          // how long a client may take between two reads of its request
    std::chrono::seconds head{30};          // for a whole head, from the connection or the answer before it
    std::chrono::seconds body{120};         // for the whole body after that
    std::chrono::seconds sending{600};      // to read its answer
    std::chrono::milliseconds drain{2000};  // how long Stop lets answers that are under way go out
};

}  // namespace qxphttp
