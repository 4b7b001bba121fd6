// SPDX-License-Identifier: ISC
// In-process configuration store behind the typed access functions of
// rgdb_getset.h: link `lrgbin_store` instead of `lrgbin` and no socket is
// used. For fuzzing and tests only; never part of the device build.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace lrgbin_store {

void clear();
void put(const std::string &key, const std::string &value);
std::optional<std::string> find(const std::string &key);
// Everything there is, and a return to such a state (a fuzzer restores the
// profile before every input).
const std::map<std::string, std::string, std::less<>> &contents();
void replace(const std::map<std::string, std::string, std::less<>> &contents);
// The cheap way back: checkpoint() marks the state, rollback() undoes every
// change since (and marks again).
void checkpoint();
void rollback();
// Loads a profile file (the xmldb format) on top of what is there.
bool load_profile(const std::string &path, std::string *error = nullptr);
// While offline every typed call fails as if the database were unreachable.
void set_online(bool online);
// Typed reads and writes since the last clear(), successful or not.
unsigned long calls();

}  // namespace lrgbin_store
