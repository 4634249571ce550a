#include "PI/server/Lenience.h"

#include <atomic>

namespace pi::server {
namespace {

std::atomic<Lenience> current{Lenience{}};

}  // namespace

Lenience lenience() { return current.load(); }
void lenienceIs(const Lenience& lenience) { current.store(lenience); }

}  // namespace pi::server
