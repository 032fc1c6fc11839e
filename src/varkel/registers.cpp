// Transport-board and motherboard registers, and the RDMA transport parameters:
// one query each on an explicit channel, so that per-module workers can use them
// side by side.
#include <cassert>
#include <cstring>

#include "internal/query.hpp"

using namespace varkel::detail;

namespace {

// A value travels as one command word: a blank would split it into two
// parameters and an empty one would vanish, sending a different command.
bool is_word(const char* value) { return value != nullptr && *value != '\0' && std::strchr(value, ' ') == nullptr; }

unsigned as_number(int n) { return static_cast<unsigned>(n); }

// "<template> number value": a numbered register or parameter and its value word.
int write_numbered(varkel_t* varkel, const char* cmd, int number, const char* value, varkel_thread_t owner)
{
  assert(varkel != NULL);
  if (!is_word(value))
    return -3;
  return query_status(varkel, owner, cmd, as_number(number), value);
}

} // namespace

int send_transportParams(varkel_t* varkel, int init_arg, const char* value, varkel_thread_t owner)
{
  return write_numbered(varkel, CMD_TRANSPORT_ROCE, init_arg, value, owner);
}

int send_configureTransport(varkel_t* varkel, varkel_thread_t owner)
{
  assert(varkel != NULL);
  return query_status(varkel, owner, CMD_CONFIGURE_ROCE);
}

int write_tb_reg(varkel_t* varkel, int init_arg, const char* value, varkel_thread_t owner)
{
  return write_numbered(varkel, CMD_WRITE_TB_REG, init_arg, value, owner);
}

int read_tb_reg(varkel_t* varkel, int addr_reg, varkel_thread_t owner)
{
  return query_status(varkel, owner, CMD_READ_TB_REG, as_number(addr_reg));
}

int write_mb_reg(varkel_t* varkel, int addr_reg, const char* value, varkel_thread_t owner)
{
  return write_numbered(varkel, CMD_WRITE_MB_REG, addr_reg, value, owner);
}

int read_mb_reg(varkel_t* varkel, int addr_reg, varkel_thread_t owner)
{
  // A failed query never stores, so `owner` has been checked by the channel by then.
  return query_scan<unsigned>(
      varkel, owner, "%x", [&](unsigned value) { varkel->mb_reg[owner] = static_cast<int32_t>(value); },
      CMD_READ_MB_REG, as_number(addr_reg));
}
