// The detector controller of one module: answers each command the way the
// firmware does, in the reply texts the library reads.
#pragma once

#include "json_rpc_server.hpp"
#include "world.hpp"

namespace varkel::sim {

// Runs one command on module index `m` of `world` and returns its answer.
// Commands are looked up in a table: a new family of commands is one entry and
// one handler there.
Answer run_command(World& world, int m, const Call& call);

} // namespace varkel::sim
