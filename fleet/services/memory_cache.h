// The cache files of a whole fleet, in memory: what a channel saved outlives the channel.
// Thread: the fleet's.
#ifndef FLEET_SERVICES_MEMORY_CACHE_H_
#define FLEET_SERVICES_MEMORY_CACHE_H_

namespace quenor::fleet {

// Forgets every file. None may be open.
void ForgetCacheFiles();

}  // namespace quenor::fleet

#endif  // FLEET_SERVICES_MEMORY_CACHE_H_
