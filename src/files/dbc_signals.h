// Internal side of the exported DBC calls: the database registry behind the handles, and the
// payload steps of the sync calls, shared with the tests, the fuzz targets and the benches.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "files/dbc_parser.h"

namespace varnel::dbc {

// Takes ownership of a loaded database and returns its handle (0 for null). Databases are never
// released.
uint64_t register_database(std::unique_ptr<Database> db);
// Drops a database and its handle; only for the fuzz targets, which load without end (the
// exported calls never release a database).
void forget_database(uint64_t handle);
// The database of a handle this library issued, else null.
Database* database(uint64_t handle);

// Builds a frame payload from the signals' raw values (the caller zeroes it first).
void build_payload(const Message& m, uint8_t* payload, size_t size);
// Stores every signal's raw value from a payload, whatever its multiplexing.
void take_payload(Message& m, const uint8_t* payload, size_t size);

// Text of `varnel dbc info`: messages with their signals, then the attribute definitions.
std::string describe(const Database& db);

}  // namespace varnel::dbc
