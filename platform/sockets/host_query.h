#pragma once

#include <chrono>
#include <vector>

#include "platform/types.h"

// One look-up under way on a thread that runs nothing but the C library's code, so that it can be left to itself, even
// by a library that is then unloaded. Any thread; each query belongs to one.
namespace sockets {

struct HostQuery;

// Null when it cannot be begun. The query is to be given to either FinishQuery or AbandonQuery.
HostQuery* BeginQuery(const char* name);

// Waits at most this long; true when the query has ended.
bool AwaitQuery(HostQuery* query, std::chrono::milliseconds time);

// Of a query that has ended: the addresses as the resolver gave them.
std::vector<u32> FinishQuery(HostQuery* query);

// Gives the query up, whether it has ended or not, without waiting for it.
void AbandonQuery(HostQuery* query);

}  // namespace sockets
