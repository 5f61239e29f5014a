// The running kernel: carries out writes, dumps what is there, and tells of changes.
//
// Three sockets: for requests, for a dump that takes many turns, for notifications. Every change
// that a request makes is in the notifications' buffer when its answer has been read. So after
// apply() and a drain() that found all, the listener has heard of the very last state.
//
// It works in the network namespace of its process. Changing anything needs CAP_NET_ADMIN there.
#pragma once

#include "bridge/Kernel.h"
#include "bridge/NetlinkSocket.h"

namespace Bridge {

class NetlinkKernel : public Kernel {
 public:
   // Notifications are collected from here on.
   NetlinkKernel();

   std::vector<Outcome> apply( const std::vector<Write>& writes ) override;
   void lookUp( uint32_t bridge, uint32_t vxlan, const std::vector<EthAddr>& macs,
                const Found& found ) override;

   // Tell the listener all that is there at present.
   void dumpLinks( KernelListener& listener );
   void dumpNexthops( KernelListener& listener );
   // The entries of the bridge and the own ones of its ports, in steps: the kernel takes a time
   // that grows with the square of their number. goOn...() returns false at the end. An entry is
   // missed when others go meanwhile; lookUp() tells whether it is there.
   void startEntryDump( uint32_t bridge );
   bool goOnWithEntryDump( KernelListener& listener );
   int entryDumpFd() const { return entries_.fd(); }
   // Changes that were asked for so far.
   uint64_t writes() const { return writes_; }

   // Readable when there are notifications.
   int fd() const { return notifications_.fd(); }
   NetlinkSocket::Drained drain( KernelListener& listener );

 private:
   NetlinkSocket requests_;
   NetlinkSocket entries_;
   NetlinkSocket notifications_;
   uint64_t writes_ = 0;
};

} // namespace Bridge
