#include "tools/ConfigDocument.h"

#include "tools/ConfigJson.h"

#include <algorithm>
#include <initializer_list>
#include <limits>

namespace Tools {

using Bridging::ConfiguredHostRecord;
using Bridging::MacVlanPair;
using Bridging::TunnelId;
using Bridging::TunnelRecord;
using Vexil::EthAddr;
using Vexil::IpGenAddr;

namespace {

using Complaints = std::vector<Complaint>;

// The members of one object. Whatever is wrong with one is complained about where it stands, and a
// default value goes on in its place.
class ObjectReader {
 public:
   // what names the object in the texts; keys are those that it may have.
   ObjectReader( const PlacedJson& object, const std::string& what,
                 std::initializer_list<const char*> keys, Complaints& complaints )
      : object_( object ), what_( what ), complaints_( complaints ),
        complaintsBefore_( complaints.size() ) {
      if( !object.value.is_object() )
         complain( object.offset,
                   "this is " + shortText( object ) + "; expected a " + what + ", {...}" );
      for( const auto& member : object.members )
         checkKey( member, keys );
   }

   bool sound() const { return complaints_.size() == complaintsBefore_; }
   bool has( const char* key ) const { return find( key ) != nullptr; }
   // Where the member stands, or the object when it has none of that key.
   size_t placeOf( const char* key ) const {
      const PlacedJson* const member = find( key );
      return member ? member->offset : object_.offset;
   }
   void complain( size_t offset, const std::string& text ) {
      complaints_.push_back( { offset, text } );
   }

   template<class Number>
   Number number( const char* key, std::optional<Number> ifAbsent = std::nullopt ) {
      if( ifAbsent && !has( key ) )
         return *ifAbsent;
      const PlacedJson* const member = required( key );
      if( !member )
         return 0;
      if( member->value.is_number_unsigned() )
         if( const auto value = member->value.get<uint64_t>();
             value <= std::numeric_limits<Number>::max() )
            return static_cast<Number>( value );
      wrong( key, *member,
             "a whole number, not negative, of " + std::to_string( 8 * sizeof( Number ) ) +
                " bits at the most" );
      return 0;
   }
   // Type is an address that parses its text.
   template<class Type>
   Type address( const char* key, const char* example ) {
      const PlacedJson* const member = required( key );
      if( !member )
         return Type();
      if( member->value.is_string() )
         if( const auto parsed = Type::parse( member->value.template get<std::string>() ) )
            return *parsed;
      wrong( key, *member, std::string( "an address such as " ) + example );
      return Type();
   }
   // The items of a list; none when it is absent.
   const std::vector<PlacedJson>& list( const char* key ) {
      static const std::vector<PlacedJson> none;
      const PlacedJson* const member = find( key );
      if( member && !member->value.is_array() )
         wrong( key, *member, "a list, [...]" );
      return member ? member->items : none;
   }

 private:
   static std::string shortText( const PlacedJson& json ) {
      if( json.value.is_object() )
         return "an object";
      return json.value.is_array() ? "a list" : text( json.value ).substr( 0, 40 );
   }
   const PlacedJson* find( const char* key ) const {
      for( const auto& member : object_.members )
         if( member.key == key )
            return &member.value;
      return nullptr;
   }
   const PlacedJson* required( const char* key ) {
      const PlacedJson* const member = find( key );
      if( !member && object_.value.is_object() )
         complain( object_.offset, "this " + what_ + " has no \"" + key + "\", and needs one" );
      return member;
   }
   void wrong( const char* key, const PlacedJson& member, const std::string& right ) {
      complain( member.offset, std::string( "\"" ) + key + "\" is " + shortText( member ) +
                                  "; expected " + right );
   }
   void checkKey( const PlacedJson::Member& member, std::initializer_list<const char*> keys ) {
      if( std::find( keys.begin(), keys.end(), member.key ) == keys.end() ) {
         std::string known;
         for( const char* const key : keys )
            known += ( known.empty() ? "" : ", " ) + std::string( key );
         complain( member.keyOffset, "unknown key " + text( member.key ).substr( 0, 40 ) + "; a " +
                                        what_ + " takes " + known );
      } else if( find( member.key.c_str() ) != &member.value ) {
         complain( member.keyOffset, "\"" + member.key + "\" stands twice in this " + what_ );
      }
   }

   const PlacedJson& object_;
   std::string what_;
   Complaints& complaints_;
   size_t complaintsBefore_;
};

class DocumentReader {
 public:
   explicit DocumentReader( std::string_view text ) : text_( text ) {}

   Configuration read() {
      const PlacedJson root = parsePlaced( text_ );
      ObjectReader document( root, "document", { "tunnels", "hosts" }, complaints );
      for( const PlacedJson& tunnel : document.list( "tunnels" ) )
         readTunnel( tunnel );
      for( const PlacedJson& host : document.list( "hosts" ) )
         readHost( host );
      return std::move( configuration_ );
   }

   Complaints complaints;

 private:
   void readTunnel( const PlacedJson& json ) {
      ObjectReader tunnel( json, "tunnel", { "id", "source", "destination", "tos", "ttl" },
                           complaints );
      TunnelRecord record;
      record.key = TunnelId( tunnel.number<uint64_t>( "id" ) );
      record.data.source = tunnel.address<IpGenAddr>( "source", "\"10.0.0.1\"" );
      record.data.destination = tunnel.address<IpGenAddr>( "destination", "\"10.0.0.2\"" );
      record.data.tos = tunnel.number<uint32_t>( "tos", defaultTos );
      record.data.ttl = tunnel.number<uint32_t>( "ttl", defaultTtl );
      accept( json, tunnel, record, "tunnel " + record.key.str(), configuration_.tunnels,
              tunnelPlaces_ );
   }

   void readHost( const PlacedJson& json ) {
      ObjectReader host( json, "host", { "vlan", "mac", "interface", "label", "tunnel" },
                         complaints );
      ConfiguredHostRecord record;
      const auto mac = host.address<EthAddr>( "mac", "\"02:00:00:00:00:01\"" );
      record.key = { mac, Bridging::VlanId( host.number<uint32_t>( "vlan" ) ) };
      record.onTunnel = host.has( "label" ) || host.has( "tunnel" );
      if( !host.sound() )
         return;
      if( host.has( "interface" ) == ( record.onTunnel != 0 ) )
         return host.complain( json.offset, "a host has either \"interface\", or \"label\" and "
                                            "\"tunnel\"" );
      record.intf = host.number<uint64_t>( record.onTunnel ? "tunnel" : "interface" );
      if( record.onTunnel )
         record.label = Vexil::MplsLabel( host.number<uint32_t>( "label" ) );
      const bool sound = host.sound();
      accept( json, host, record, "host " + record.key.str(), configuration_.hosts, hostPlaces_ );
      if( sound && record.onTunnel && record.intf.value() != 0 &&
          !tunnelPlaces_.contains( TunnelId( record.intf.value() ) ) )
         host.complain( host.placeOf( "tunnel" ),
                        "tunnel " + std::to_string( record.intf.value() ) +
                           " is not in this document; expected one of its \"tunnels\"" );
   }

   // Takes the record over if it is sound, or says why not. The place of its key is noted in any
   // case: what refers to it has no fault of its own.
   template<class Record, class Records, class Places>
   void accept( const PlacedJson& json, ObjectReader& object, const Record& record,
                const std::string& name, Records& records, Places& places ) {
      const bool sound = object.sound();
      if( const auto fault = faultIn( record ); fault && sound )
         object.complain( object.placeOf( fault->field ), fault->text );
      const auto [ first, isNew ] = places.emplace( record.key, json.offset );
      if( sound && !isNew )
         object.complain( json.offset, name + " is already in line " +
                                          std::to_string( placeOf( text_, first->second ).line ) +
                                          "; expected once" );
      records.emplace( record.key, record );
   }

   std::string_view text_;
   Configuration configuration_;
   std::map<TunnelId, size_t> tunnelPlaces_;
   std::map<MacVlanPair, size_t> hostPlaces_;
};

} // namespace

Configuration parseConfiguration( const std::string& file, const std::string& text ) {
   DocumentReader reader( text );
   Configuration configuration;
   try {
      configuration = reader.read();
   } catch( const Complaint& complaint ) {
      reader.complaints = { complaint };
   }
   if( reader.complaints.empty() )
      return configuration;
   std::stable_sort( reader.complaints.begin(), reader.complaints.end(),
                     []( const auto& a, const auto& b ) { return a.offset < b.offset; } );
   DocumentRefused refused;
   for( const Complaint& complaint : reader.complaints ) {
      const Place place = placeOf( text, complaint.offset );
      refused.complaints.push_back( file + ":" + std::to_string( place.line ) + ":" +
                                    std::to_string( place.column ) + ": " + complaint.text );
   }
   throw refused;
}

Json toJson( const Configuration& configuration ) {
   Json tunnels = Json::array();
   for( const auto& [ id, tunnel ] : configuration.tunnels )
      tunnels.push_back( { { "id", id.value() },
                           { "source", tunnel.data.source.str() },
                           { "destination", tunnel.data.destination.str() },
                           { "tos", tunnel.data.tos },
                           { "ttl", tunnel.data.ttl } } );
   Json hosts = Json::array();
   for( const auto& [ key, host ] : configuration.hosts ) {
      Json json{ { "vlan", key.vlan().value() }, { "mac", key.mac().str() } };
      if( host.onTunnel ) {
         json[ "label" ] = host.label.value();
         json[ "tunnel" ] = host.intf.value();
      } else {
         json[ "interface" ] = host.intf.value();
      }
      hosts.push_back( json );
   }
   return { { "tunnels", tunnels }, { "hosts", hosts } };
}

} // namespace Tools
