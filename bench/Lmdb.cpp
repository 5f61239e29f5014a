#include "bench/Lmdb.h"

#include <filesystem>

namespace Bench {

Lmdb::Lmdb( const std::string& folder, unsigned flags ) {
   constexpr size_t mapSize = size_t( 4 ) << 30; // addresses, not memory
   std::filesystem::create_directories( folder );
   lmdbCheck( mdb_env_create( &env_ ) );
   lmdbCheck( mdb_env_set_mapsize( env_, mapSize ) );
   lmdbCheck( mdb_env_open( env_, folder.c_str(), flags, 0600 ) );
   lmdbCheck( mdb_txn_begin( env_, nullptr, flags & MDB_RDONLY, &txn_ ) );
   lmdbCheck( mdb_dbi_open( txn_, nullptr, 0, &dbi_ ) );
   commit();
}

Lmdb::~Lmdb() {
   if( txn_ )
      mdb_txn_abort( txn_ );
   mdb_env_close( env_ );
}

void Lmdb::commit() {
   lmdbCheck( mdb_txn_commit( txn_ ) );
   txn_ = nullptr;
}

void Lmdb::readAnew() {
   if( !txn_ ) {
      lmdbCheck( mdb_txn_begin( env_, nullptr, MDB_RDONLY, &txn_ ) );
      return;
   }
   mdb_txn_reset( txn_ );
   lmdbCheck( mdb_txn_renew( txn_ ) );
}

} // namespace Bench
