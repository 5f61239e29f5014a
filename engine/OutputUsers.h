// Who uses which output object, and which relations still have to go in the cascade under way.
//
// One record for each object that has, or just had, a user. The relations are sets: entering the
// same user twice leaves one.
#pragma once

#include "engine/ObjTupleUsers.h"
#include "runtime/HashMap.h"

#include <optional>
#include <utility>
#include <vector>

namespace L2Rib {

class OutputUsers {
 public:
   template<class T>
   using Ptr = Vexil::Ptr<T>;

   const Vexil::HashMap<ObjTuple, Ptr<ObjTupleUsers>>& records() const { return records_; }
   // Null when there is no record for the object.
   Ptr<ObjTupleUsers> record( const ObjTuple& used ) const {
      if( lastUsedByHost_ && lastUsedByHost_->used() == used )
         return lastUsedByHost_;
      const Ptr<ObjTupleUsers>* const found = records_.find( used );
      return found ? *found : nullptr;
   }
   // Makes the record of an object, or returns the one that is there.
   const Ptr<ObjTupleUsers>& recordIs( const ObjTuple& used ) {
      if( const Ptr<ObjTupleUsers>* present = records_.find( used ) )
         return *present;
      return *records_.emplace( used, Vexil::makeEntity<ObjTupleUsers>( used ) ).first;
   }
   // The record goes, with the relations that are still in it.
   void recordDel( const ObjTuple& used ) {
      if( const Ptr<ObjTupleUsers> leaving = record( used ) )
         relations_ -= leaving->size();
      if( lastUsedByHost_ && lastUsedByHost_->used() == used )
         lastUsedByHost_ = nullptr;
      records_.erase( used );
   }
   void recordDelAll() {
      records_.clear();
      lastUsedByHost_ = nullptr;
      relations_ = 0;
   }

   // The user is an output object or an output host: the other one is invalid.
   void userIs( const Ptr<ObjTupleUsers>& record, const ObjTuple& otUser,
                const Bridging::MacVlanPair& mvpUser ) {
      const size_t before = record->size();
      if( otUser == Util::objTupleInvalid() ) {
         record->mvpUserIs( mvpUser, true );
         lastUsedByHost_ = record;
      } else {
         record->otUserIs( otUser, true );
      }
      relations_ += record->size() - before; // the relation may have been there
   }
   // The relation is there.
   void userDel( ObjTupleUsers& record, const ObjTuple& otUser,
                 const Bridging::MacVlanPair& mvpUser ) {
      if( otUser == Util::objTupleInvalid() )
         record.mvpUserDel( mvpUser );
      else
         record.otUserDel( otUser );
      --relations_;
   }
   bool isUnused( const ObjTuple& ot ) const {
      const Ptr<ObjTupleUsers> found = record( ot );
      return !found || found->empty();
   }
   // The output objects that point to an output object.
   std::vector<ObjTuple> objectUsersOf( const ObjTuple& ot ) const {
      std::vector<ObjTuple> users;
      if( const Ptr<ObjTupleUsers> found = record( ot ) )
         for( const auto& user : found->otUser() )
            users.push_back( user.key );
      return users;
   }
   // All relations between a user and what it uses.
   uint64_t relations() const { return relations_; }

   // Hosts that are decided one after the other often lead to one object: brings the place of one
   // that may soon be its user nearer to the processor, given its hash. A guess that costs little.
   void prefetchMvpUser( uint64_t hash ) const {
      if( lastUsedByHost_ )
         lastUsedByHost_->prefetchMvpUser( hash );
   }

   // --- the cascade ---------------------------------------------------------------------------
   // An object that is deleted releases what it pointed to, and these release in turn what they
   // did. A chain may be long, so what is still to be released waits here and not on the
   // processor's stack; the last one entered is the next.
   struct Release {
      ObjTuple used;
      ObjTuple user;
   };
   void releaseIs( const ObjTuple& used, const ObjTuple& user ) {
      toRelease_.push_back( { used, user } );
   }
   std::optional<Release> nextRelease() {
      if( toRelease_.empty() )
         return std::nullopt;
      const Release next = toRelease_.back();
      toRelease_.pop_back();
      return next;
   }
   // Whether this call is the one that works the cascade off; the others leave it to that one.
   bool beginCascade() { return !std::exchange( cascading_, true ); }
   void endCascade() { cascading_ = false; }

 private:
   Vexil::HashMap<ObjTuple, Ptr<ObjTupleUsers>> records_;
   Ptr<ObjTupleUsers> lastUsedByHost_;
   uint64_t relations_ = 0;
   std::vector<Release> toRelease_;
   bool cascading_ = false;
};

} // namespace L2Rib
