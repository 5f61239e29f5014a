// A route netlink socket: requests in large batches with every answer read, dumps, and
// notifications.
//
// A batch goes out in few system calls. The kernel carries its requests out in order, and answers
// each that fails, each that asks for something, and the last one of a call, which alone asks for
// an acknowledgement: netlink_rcv_skb() acknowledges what asks for it and whatever fails, with the
// number of the request. The answers are in the socket's buffer when the call returns, and all of
// them are read. So each refusal is known by itself, with its reason; a request before an answered
// one was carried out if there is no answer to it. An answer that found no room shows as ENOBUFS
// (netlink_overrun()), and then nothing is taken for carried out. An acknowledgement for each would
// say the same, and costs the kernel more than the entries themselves.
//
// Notifications belong on a socket of their own, where they can't displace answers.
//
// Errors: std::system_error when the system refuses a call. Threads: one at a time.
#pragma once

#include "bridge/Kernel.h"

#include <functional>
#include <linux/netlink.h>
#include <vector>

namespace Bridge {

// Requests one behind the other, with consecutive numbers.
class RequestBatch {
 public:
   // Starts a request with a family header of that many bytes, zeroed. Valid until finish().
   nlmsghdr* start( uint16_t type, uint16_t flags, size_t familySize );
   void finish();

   size_t count() const { return ends_.size(); }

 private:
   friend class NetlinkSocket;
   // No request of ours comes near: the longest is a group, 8 bytes a member.
   static constexpr size_t maxRequest = 16384;

   std::vector<char> bytes_;
   std::vector<size_t> ends_; // of each request in bytes_
   size_t size_ = 0;          // bytes of all that are finished
};

class NetlinkSocket {
 public:
   NetlinkSocket();
   ~NetlinkSocket();
   NetlinkSocket( const NetlinkSocket& ) = delete;
   NetlinkSocket& operator=( const NetlinkSocket& ) = delete;

   int fd() const { return fd_; }
   // Notifications of a group (RTNLGRP_...) from now on.
   void join( unsigned group );

   // Whether notifications of entries that were learned elsewhere are heard, as they are at first.
   // Those that this program makes are such: of a hundred thousand each would come back.
   void externalEntriesAre( bool heard );

   using Each = std::function<void( const nlmsghdr* message )>;

   // Sends all and reads every answer; each() gets those that are more than a yes or no.
   std::vector<Outcome> exchange( RequestBatch& batch, const Each& each );

   // The one request of the batch is a dump's. Again from the start when the kernel says that what
   // it gave out changed meanwhile, so each() may hear of something twice.
   void dump( RequestBatch& batch, const Each& each );
   // The same in steps, once: until goOnDumping(), which may wait for the kernel, returns false. No
   // other requests in between.
   void startDump( RequestBatch& batch );
   bool goOnDumping( const Each& each );

   enum class Drained { all, more, lost };
   // Reads notifications that are there, some thousands at most. lost: the buffer had overflowed,
   // and only a comparison tells what is there.
   Drained drain( const Each& each );

 private:
   void send( const RequestBatch& batch, size_t from, size_t to );
   void exchangePart( const RequestBatch& batch, size_t from, size_t to, const Each& each,
                      std::vector<Outcome>& outcomes );
   static constexpr size_t received = 16; // messages a system call
   // Receives some messages; false when there are none.
   template<class Use>
   bool receive( int flags, Use use, size_t most = received );

   int fd_ = -1;
   uint32_t nextNumber_ = 1;
   size_t longestBatch_ = 0;  // requests whose answers the buffer holds
   bool interrupted_ = false; // the dump under way
   std::vector<char> buffer_;
};

} // namespace Bridge
