// LMDB as a rival of the tables: one environment with fixed-size keys and records, written by one
// process and read by others.
#pragma once

#include <cstring>
#include <lmdb.h>
#include <stdexcept>
#include <string>

namespace Bench {

inline void lmdbCheck( int code ) {
   if( code != MDB_SUCCESS )
      throw std::runtime_error( std::string( "lmdb: " ) + mdb_strerror( code ) );
}

class Lmdb {
 public:
   // In a folder, which is made; flags as mdb_env_open() takes them.
   Lmdb( const std::string& folder, unsigned flags );
   ~Lmdb();
   Lmdb( const Lmdb& ) = delete;
   Lmdb& operator=( const Lmdb& ) = delete;

   // A write transaction that takes the puts until commit().
   void begin() { lmdbCheck( mdb_txn_begin( env_, nullptr, 0, &txn_ ) ); }
   template<class Key, class Record>
   void put( const Key& key, const Record& record ) {
      MDB_val name{ sizeof key, const_cast<Key*>( &key ) };
      MDB_val value{ sizeof record, const_cast<Record*>( &record ) };
      lmdbCheck( mdb_put( txn_, dbi_, &name, &value, 0 ) );
   }
   void commit();

   // The read transaction: held from the first call on, made new by each further one.
   void readAnew();
   // Copies the record of key out; false when it is absent.
   template<class Key, class Record>
   bool get( const Key& key, Record& record ) const {
      MDB_val name{ sizeof key, const_cast<Key*>( &key ) };
      MDB_val value;
      if( mdb_get( txn_, dbi_, &name, &value ) != MDB_SUCCESS )
         return false;
      std::memcpy( static_cast<void*>( &record ), value.mv_data, sizeof record );
      return true;
   }

 private:
   MDB_env* env_ = nullptr;
   MDB_txn* txn_ = nullptr;
   MDB_dbi dbi_ = 0;
};

} // namespace Bench
