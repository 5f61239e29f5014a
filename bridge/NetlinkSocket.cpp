#include "bridge/NetlinkSocket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/filter.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace Bridge {

namespace {

constexpr int wantedBuffer = 8 << 20; // for bursts of notifications; the system may give less
// What an answer takes of the receive buffer: the kernel counts the whole socket buffer, which is
// one allocation of 512 bytes and one of about 256 for the shortest message.
constexpr size_t answerCost = 1024;
constexpr size_t longestSend = 512;   // requests: answers of more would only wait
constexpr size_t messageSize = 32768; // the most that the kernel puts into one
constexpr int roundsOfDrain = 256;
constexpr int triesOfDump = 10;

[[noreturn]] void fail( const char* what ) {
   throw std::system_error( errno, std::generic_category(), what );
}

// The kernel's own words in an error message, empty without (NLMSGERR_ATTR_MSG, linux/netlink.h).
std::string textOf( const nlmsghdr* message, const nlmsgerr* error ) {
   if( !( message->nlmsg_flags & NLM_F_ACK_TLVS ) )
      return {};
   size_t offset = sizeof( nlmsgerr );
   if( !( message->nlmsg_flags & NLM_F_CAPPED ) )
      offset += error->msg.nlmsg_len - sizeof( nlmsghdr );
   std::string text;
   mnl_attr_parse(
      message, static_cast<unsigned>( offset ),
      []( const nlattr* attribute, void* found ) {
         if( mnl_attr_get_type( attribute ) == NLMSGERR_ATTR_MSG )
            *static_cast<std::string*>( found ) = mnl_attr_get_str( attribute );
         return MNL_CB_OK;
      },
      &text );
   return text;
}

} // namespace

nlmsghdr* RequestBatch::start( uint16_t type, uint16_t flags, size_t familySize ) {
   bytes_.resize( size_ + maxRequest );
   nlmsghdr* const header = mnl_nlmsg_put_header( bytes_.data() + size_ );
   header->nlmsg_type = type;
   header->nlmsg_flags = static_cast<uint16_t>( NLM_F_REQUEST | flags );
   mnl_nlmsg_put_extra_header( header, familySize );
   return header;
}

void RequestBatch::finish() {
   const auto* const header = reinterpret_cast<const nlmsghdr*>( bytes_.data() + size_ );
   size_ += MNL_ALIGN( header->nlmsg_len );
   ends_.push_back( size_ );
}

NetlinkSocket::NetlinkSocket()
   : fd_( socket( AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE ) ),
     buffer_( received * messageSize ) {
   if( fd_ < 0 )
      fail( "opening a netlink socket" );
   // Bound, so that the kernel gives it a number: to those without one it sends no notifications.
   sockaddr_nl own{};
   own.nl_family = AF_NETLINK;
   const int on = 1;
   // Without the privilege the default stays, and batches are shorter.
   setsockopt( fd_, SOL_SOCKET, SO_RCVBUFFORCE, &wantedBuffer, sizeof wantedBuffer );
   int given = 0;
   socklen_t length = sizeof given;
   if( bind( fd_, reinterpret_cast<const sockaddr*>( &own ), sizeof own ) != 0 ||
       getsockopt( fd_, SOL_SOCKET, SO_RCVBUF, &given, &length ) != 0 ||
       setsockopt( fd_, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on ) != 0 ||
       setsockopt( fd_, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on ) != 0 ||
       setsockopt( fd_, SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on ) != 0 )
      fail( "setting up a netlink socket" );
   longestBatch_ = std::clamp<size_t>( static_cast<size_t>( given ) / answerCost, 1, longestSend );
}

NetlinkSocket::~NetlinkSocket() { close( fd_ ); }

void NetlinkSocket::join( unsigned group ) {
   if( setsockopt( fd_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group ) != 0 )
      fail( "joining a netlink group" );
}

void NetlinkSocket::externalEntriesAre( bool heard ) {
   if( heard ) {
      const int unused = 0;
      if( setsockopt( fd_, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused ) != 0 )
         fail( "hearing all notifications" );
      return;
   }
   // Offsets in a message: nlmsghdr, then ndmsg. A filter loads 16 bits in network order.
   constexpr uint32_t typeAt = offsetof( nlmsghdr, nlmsg_type );
   constexpr uint32_t flagsAt = sizeof( nlmsghdr ) + offsetof( ndmsg, ndm_flags );
   constexpr uint32_t keep = UINT32_MAX;
   std::array<sock_filter, 6> program{ {
      BPF_STMT( BPF_LD | BPF_H | BPF_ABS, typeAt ),
      BPF_JUMP( BPF_JMP | BPF_JEQ | BPF_K, htons( RTM_NEWNEIGH ), 0, 2 ),
      BPF_STMT( BPF_LD | BPF_B | BPF_ABS, flagsAt ),
      BPF_JUMP( BPF_JMP | BPF_JSET | BPF_K, NTF_EXT_LEARNED, 1, 0 ),
      BPF_STMT( BPF_RET | BPF_K, keep ),
      BPF_STMT( BPF_RET | BPF_K, 0 ),
   } };
   const sock_fprog filter{ static_cast<unsigned short>( program.size() ), program.data() };
   if( setsockopt( fd_, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter ) != 0 )
      fail( "filtering notifications" );
}

void NetlinkSocket::send( const RequestBatch& batch, size_t from, size_t to ) {
   const size_t begin = from == 0 ? 0 : batch.ends_[ from - 1 ];
   const size_t size = batch.ends_[ to - 1 ] - begin;
   sockaddr_nl kernel{};
   kernel.nl_family = AF_NETLINK;
   for( ;; ) {
      const ssize_t sent = sendto( fd_, batch.bytes_.data() + begin, size, 0,
                                   reinterpret_cast<const sockaddr*>( &kernel ), sizeof kernel );
      if( sent >= 0 )
         return;
      if( errno != EINTR )
         fail( "sending to the kernel" );
   }
}

template<class Use>
bool NetlinkSocket::receive( int flags, Use use, size_t most ) {
   std::array<mmsghdr, received> headers{};
   std::array<iovec, received> parts{};
   for( size_t i = 0; i < received; ++i ) {
      parts[ i ] = { buffer_.data() + i * messageSize, messageSize };
      headers[ i ].msg_hdr.msg_iov = &parts[ i ];
      headers[ i ].msg_hdr.msg_iovlen = 1;
   }
   int count = 0;
   do
      count = recvmmsg( fd_, headers.data(), static_cast<unsigned>( most ), flags, nullptr );
   while( count < 0 && errno == EINTR );
   if( count < 0 && errno == EAGAIN )
      return false;
   if( count < 0 )
      fail( "reading from the kernel" );
   for( int i = 0; i < count; ++i ) {
      const mmsghdr& header = headers[ static_cast<size_t>( i ) ];
      int left = static_cast<int>( header.msg_len );
      if( header.msg_hdr.msg_flags & MSG_TRUNC )
         throw std::system_error( ENOBUFS, std::generic_category(), "a message too long" );
      const auto* message =
         static_cast<const nlmsghdr*>( parts[ static_cast<size_t>( i ) ].iov_base );
      for( ; mnl_nlmsg_ok( message, left ); message = mnl_nlmsg_next( message, &left ) )
         use( message );
   }
   return true;
}

std::vector<Outcome> NetlinkSocket::exchange( RequestBatch& batch, const Each& each ) {
   std::vector<Outcome> outcomes( batch.count() );
   const uint32_t first = nextNumber_;
   nextNumber_ += static_cast<uint32_t>( batch.count() );
   for( size_t i = 0; i < batch.count(); ++i ) {
      auto* const header =
         reinterpret_cast<nlmsghdr*>( batch.bytes_.data() + ( i == 0 ? 0 : batch.ends_[ i - 1 ] ) );
      header->nlmsg_seq = first + static_cast<uint32_t>( i );
      if( ( i + 1 ) % longestBatch_ == 0 || i + 1 == batch.count() )
         header->nlmsg_flags |= NLM_F_ACK; // behind the answers to all others
   }
   for( size_t from = 0; from < batch.count(); from += longestBatch_ )
      exchangePart( batch, from, std::min( batch.count(), from + longestBatch_ ), each, outcomes );
   return outcomes;
}

void NetlinkSocket::exchangePart( const RequestBatch& batch, size_t from, size_t to,
                                  const Each& each, std::vector<Outcome>& outcomes ) {
   const uint32_t first = nextNumber_ - static_cast<uint32_t>( batch.count() );
   send( batch, from, to );
   bool answered = false; // the last request, and so all before it
   const auto read = [ & ]( const nlmsghdr* message ) {
      // The answer to a request of an exchange that failed half way is none of ours.
      const size_t index = message->nlmsg_seq - first;
      if( index < from || index >= to )
         return;
      if( message->nlmsg_type != NLMSG_ERROR ) {
         each( message );
         return;
      }
      answered = answered || index + 1 == to;
      const auto* const error = static_cast<const nlmsgerr*>( mnl_nlmsg_get_payload( message ) );
      if( error->error == 0 )
         return;
      outcomes[ index ].error = -error->error;
      outcomes[ index ].text = textOf( message, error );
      if( outcomes[ index ].text.empty() )
         outcomes[ index ].text = std::strerror( -error->error );
   };
   while( !answered )
      if( !receive( MSG_DONTWAIT, read ) ) { // they are all there when sendto() returns
         errno = ENODATA;
         fail( "answers of the kernel are missing" );
      }
}

void NetlinkSocket::startDump( RequestBatch& batch ) {
   auto* const request = reinterpret_cast<nlmsghdr*>( batch.bytes_.data() );
   request->nlmsg_seq = nextNumber_++;
   request->nlmsg_flags |= NLM_F_DUMP;
   send( batch, 0, 1 );
}

bool NetlinkSocket::goOnDumping( const Each& each ) {
   bool ended = false;
   int error = 0;
   receive(
      MSG_WAITFORONE,
      [ & ]( const nlmsghdr* message ) {
         if( message->nlmsg_seq + 1 != nextNumber_ )
            return;
         interrupted_ = interrupted_ || message->nlmsg_flags & NLM_F_DUMP_INTR;
         if( message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR ) {
            ended = true;
            error = -*static_cast<const int*>( mnl_nlmsg_get_payload( message ) );
         } else {
            each( message );
         }
      },
      1 );
   if( error != 0 ) {
      errno = error;
      fail( "a dump" );
   }
   return !ended;
}

void NetlinkSocket::dump( RequestBatch& batch, const Each& each ) {
   for( int i = 0; i < triesOfDump; ++i ) {
      interrupted_ = false;
      startDump( batch );
      while( goOnDumping( each ) ) {
      }
      if( !interrupted_ )
         return;
   }
}

NetlinkSocket::Drained NetlinkSocket::drain( const Each& each ) {
   try {
      for( int round = 0; round < roundsOfDrain; ++round )
         if( !receive( MSG_DONTWAIT, each ) )
            return Drained::all;
   } catch( const std::system_error& failure ) {
      if( failure.code().value() != ENOBUFS )
         throw;
      return Drained::lost;
   }
   return Drained::more;
}

} // namespace Bridge
