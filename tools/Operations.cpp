#include "tools/Operations.h"

#include "tools/Json.h"

#include <map>
#include <string>

namespace Tools {

using namespace L2Rib;
using Client::Rejection;
using Client::SourcePublisher;

namespace {

constexpr const char* help =
   R"({"op":"host","mac":"02:00:00:00:00:01","vlan":10,"next":{"type":"lb","id":7}}
{"op":"host","mac":"02:00:00:00:00:02","vlan":10,"pref":100,"seqNo":1,"entryType":1,"inline":{"value":12}}
{"op":"host","mac":"02:00:00:00:00:03","vlan":10,"inline":{"vteps":["10.0.0.1","10.0.0.2"]}}
{"op":"hostDel","mac":"02:00:00:00:00:01","vlan":10}
{"op":"dest","id":1,"vxlan":{"vtep":"10.0.0.1","vni":10010}}
{"op":"dest","id":2,"intf":{"id":12}}
{"op":"dest","id":3,"mpls":{"intf":12,"labels":[100,200]}}
{"op":"dest","id":4,"tunnel":{"source":"10.0.0.1","destination":"10.0.0.2","tos":0,"ttl":64}}
{"op":"destDel","id":1}
{"op":"lb","id":7,"nexts":[{"type":"dest","id":1},{"type":"label","id":3}]}
{"op":"lbDel","id":7}
{"op":"label","id":3,"label":1000,"next":{"type":"dest","id":1}}
{"op":"labelDel","id":3}
{"op":"flood","vlan":10,"mac":"ff:ff:ff:ff:ff:ff","type":"vxlan","dest":{"vxlan":{"vtep":"10.0.0.9","vni":10010}}}
{"op":"floodDel","vlan":10,"mac":"ff:ff:ff:ff:ff:ff","dest":{"vxlan":{"vtep":"10.0.0.9","vni":10010}}}
{"op":"clear"}                        empties all tables of this source
{"op":"initialized","value":true}     the tables are complete: the source takes part
{"op":"begin"} ... {"op":"end"}       at the end, what was not named since the beginning is deleted
{"op":"sync"}                         answered with {"synced":N} when all before it is published
Without them: pref 100, seqNo 0, entryType 1. Flood types: vxlan, intf, any.
)";

// What one operation does: reads all its fields first, then acts.
using Operation = Rejection ( * )( Fields&, SourcePublisher& );

template<class Value, class Act>
Rejection closed( Fields& fields, const Value& value, Act act ) {
   fields.close();
   return act( value );
}

const std::map<std::string, Operation, std::less<>>& operations() {
   static const std::map<std::string, Operation, std::less<>> all{
      { "host",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, hostFrom( fields ),
                          [ & ]( const Host& host ) { return source.hostIs( host ); } );
        } },
      { "hostDel",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, keyFrom( fields ),
                          [ & ]( const auto& key ) { return source.hostDel( key ); } );
        } },
      { "dest",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, destFrom( fields, DestId( fields.number( "id" ) ) ),
                          [ & ]( const Dest& dest ) { return source.destIs( dest ); } );
        } },
      { "destDel",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, DestId( fields.number( "id" ) ),
                          [ & ]( DestId id ) { return source.destDel( id ); } );
        } },
      { "lb",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, lbFrom( fields ),
                          [ & ]( const LoadBalance& lb ) { return source.lbIs( lb ); } );
        } },
      { "lbDel",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, LoadBalanceId( fields.number( "id" ) ),
                          [ & ]( LoadBalanceId id ) { return source.lbDel( id ); } );
        } },
      { "label",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, labelFrom( fields ),
                          [ & ]( const Label& label ) { return source.labelIs( label ); } );
        } },
      { "labelDel",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, LabelId( fields.number( "id" ) ),
                          [ & ]( LabelId id ) { return source.labelDel( id ); } );
        } },
      { "flood",
        []( Fields& fields, SourcePublisher& source ) {
           const std::string type = fields.text( "type" );
           const auto parsed = floodSetTypeParse( type );
           if( !parsed )
              throw BadInput( "flood: \"type\" is " + excerpt( type ) +
                              "; expected \"vxlan\", \"intf\" or \"any\"" );
           return closed( fields, FloodMember{ floodTripleFrom( fields ), *parsed },
                          [ & ]( const FloodMember& member ) { return source.floodIs( member ); } );
        } },
      { "floodDel",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, floodTripleFrom( fields ), [ & ]( const FloodSetTriple& triple ) {
              return source.floodDel( triple );
           } );
        } },
      { "initialized",
        []( Fields& fields, SourcePublisher& source ) {
           return closed( fields, fields.boolean( "value" ), [ & ]( bool value ) {
              source.initializedIs( value );
              return Rejection();
           } );
        } },
      { "clear",
        []( Fields& fields, SourcePublisher& source ) {
           fields.close();
           source.clear();
           return Rejection();
        } },
      { "begin",
        []( Fields& fields, SourcePublisher& source ) {
           fields.close();
           return source.begin();
        } },
      { "end",
        []( Fields& fields, SourcePublisher& source ) {
           fields.close();
           return source.end();
        } },
   };
   return all;
}

std::string operationNames() {
   std::string names;
   for( const auto& [ name, operation ] : operations() )
      names += name + ", ";
   return names + "sync";
}

} // namespace

namespace {

Json parsed( std::string_view line ) {
   using Event = Json::parse_event_t;
   // The parser takes it for the end, and what stands behind it would be lost without a word.
   if( const size_t nul = line.find( '\0' ); nul != line.npos )
      throw BadInput( "a zero byte at character " + std::to_string( nul + 1 ) +
                      "; expected one object a line, such as {\"op\":\"sync\"}" );
   return Json::parse( line, []( int depth, Event event, const Json& ) {
      if( static_cast<size_t>( depth ) >= deepestNesting &&
          ( event == Event::object_start || event == Event::array_start ) )
         throw BadInput( "nested deeper than " + std::to_string( deepestNesting ) +
                         " levels; expected one object a line, such as {\"op\":\"sync\"}" );
      return true;
   } );
}

} // namespace

const char* operationsHelp() { return help; }

Rejection Operations::carryOut( std::string_view line ) {
   try {
      const Json json = parsed( line );
      const std::string name = Fields( json, "the line" ).text( "op" );
      Fields fields( json, name );
      fields.any( "op" );
      if( name == "sync" ) {
         fields.close();
         source_.flush();
         answer_( done_ );
         return {};
      }
      const auto operation = operations().find( name );
      if( operation == operations().end() )
         return "unknown op " + excerpt( name ) + "; expected one of " + operationNames();
      const Rejection bad = operation->second( fields, source_ );
      if( !bad )
         ++done_;
      return bad ? name + ": " + *bad : bad;
   } catch( const Json::parse_error& error ) {
      return "not valid JSON at character " + std::to_string( error.byte ) +
             "; expected one object a line, such as {\"op\":\"sync\"}";
   } catch( const Json::out_of_range& ) {
      return "a number that is too large; expected whole numbers of 64 bits at the most";
   } catch( const Json::exception& error ) {
      return std::string( "JSON that can't be read: " ) + error.what();
   } catch( const BadInput& error ) {
      return error.what();
   }
}

} // namespace Tools
