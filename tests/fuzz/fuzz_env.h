// What every fuzz target shares: a device root of its own with the
// simulated switch, the agent started the way the child starts it, and the
// controller replaced by an in-process reply.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz
{

// Builds the device root (once per process; it is removed at exit) and
// starts the modules the targets need, in the daemon's order. With
// `commands` set, every module that registers a command handler is started
// too.
void start_agent(bool commands);

// The body the next request for a path containing `what` gets, with its
// status (200 unless given). Requests nobody scripted get 200 and "{}".
void answer(const char *what, const uint8_t *data, size_t size, int status = 200);
void forget_answers(void);

// The device root, and a path inside it.
const std::string &root(void);
std::string at(const char *device_path);

// Writes bytes into a file of the device root (or anywhere when absolute
// and outside it).
void write_file(const std::string &path, const uint8_t *data, size_t size);

// A target built with fuzz_pick.cpp defines these two: whether the agent
// starts with its command handlers, and what one input does with its first
// byte (the choice) and the bytes after it (possibly none).
extern const bool pick_needs_commands;
void pick_input(uint8_t pick, const uint8_t *data, size_t size);

} // namespace fuzz
