#include "tools/Commands.h"

#include "L2Rib/NetTypes.h"

#include <iostream>

namespace Tools {

void complain( const std::string& text ) { std::cerr << "l2ribctl: " << text << std::endl; }

std::string checkMac( const std::string& text ) {
   return Vexil::EthAddr::parse( text ) ? ""
                                        : text + "; expected an address such as 02:00:00:00:00:01";
}

void addJsonFlag( CLI::App& command, Context& context ) {
   command.add_flag( "--json", context.json, "print JSON instead of a table" );
}

} // namespace Tools
