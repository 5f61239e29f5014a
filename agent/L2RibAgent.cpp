#include "agent/L2RibAgent.h"

#include "bindings/Bindings.h"
#include "runtime/Failure.h"
#include "runtime/Trace.h"

#include <algorithm>
#include <sstream>
#include <string>

namespace L2Rib {

namespace {

Vexil::TraceHandle& trace = Vexil::traceHandle( "L2RibAgent" );

constexpr uint32_t outputCapacity = 16384; // where the output tables begin

// The entity mounted at path, which must be of that type.
template<class T>
Vexil::Ptr<T> mounted( Vexil::EntityManager& em, const char* path ) {
   const Vexil::Ptr<Vexil::Entity> entity = em.entity( path );
   auto* const typed = dynamic_cast<T*>( entity.get() );
   VEXIL_ASSERT( typed );
   return typed;
}

// A table that can't be read can't be adopted: what the sources say fills a new one.
template<class Table>
Vexil::Ptr<Table> outputTable( Vexil::EntityManager& em, const char* path, uint32_t capacity ) {
   return em.mountDerivedTable<Table>( path, capacity );
}

// Gives a table the capacity that it is to begin with, or as many times double that as its rows
// need, and lets it grow from there.
void fit( Vexil::TableBase& table, uint32_t capacity, uint32_t capacityMax ) {
   while( capacity < table.count() )
      capacity *= 2;
   table.capacityIs( std::min( capacity, capacityMax ) );
   table.capacityMaxIs( capacityMax );
}

// Lets the host process create the agent by its type name once this library is loaded.
[[maybe_unused]] const bool registered = [] {
   registerEntityTypes();
   Vexil::registerType( "L2Rib::Agent",
                        { nullptr, []( const std::string& name ) {
                            return Vexil::Ptr<Vexil::Entity>( agentFactory( name ).get() );
                         } } );
   return true;
}();

} // namespace

Agent::Agent( const std::string& name ) : BaseAgent( name ) {}

Agent::~Agent() {
   statusPublisher_.reset();
   policySmDel();
   pluginContextDel();
   staticHostSmDel();
}

void Agent::doInit() {
   TRACE( 0, __PRETTY_FUNCTION__ << " em is " << entityManager().get() );
   if( const auto chosen = settings().find( "test-plugins" ); chosen != settings().end() )
      loadTestPluginIs( chosen->second == "1" );
   const auto group = entityManager()->mountGroup();
   group->doMount( Path::inputDir, "Vexil::Directory", "ri" );
   group->doMount( Path::agentInputDir, "L2Rib::AgentSourceDir", "w" );
   group->doMount( Path::floodOutput, "L2Rib::FloodSetOutput", "w" );
   group->doMount( Path::bridgingConfig, "Bridging::Config", "r" );
   group->doMount( Path::policySmStatus, "L2Rib::PolicySmStatus", "w" );
   group->doClose();
}

void Agent::doMountsComplete( Vexil::MountStatus mountStatus,
                              Vexil::Ptr<Vexil::EntityManager> em ) {
   TRACE( 0, __PRETTY_FUNCTION__ );
   mountStatusIs( mountStatus );
   VEXIL_ASSERT( mountStatus == Vexil::MountStatus::success );
   const auto inputDir = mounted<Vexil::Directory>( *em, Path::inputDir );
   l2RibAgentSourceDirIs( mounted<AgentSourceDir>( *em, Path::agentInputDir ) );
   bridgingConfigIs( mounted<Bridging::Config>( *em, Path::bridgingConfig ) );
   const auto floodOutput = mounted<FloodSetOutput>( *em, Path::floodOutput );
   const auto status = mounted<PolicySmStatus>( *em, Path::policySmStatus );

   const bool given = settings().contains( "output-capacity" );
   const auto wanted = static_cast<uint32_t>( setting( "output-capacity", outputCapacity ) );
   const auto capacityMax = static_cast<uint32_t>(
      setting( "output-capacity-max", std::max( given ? wanted : 1, defaultCapacityMax ) ) );
   const uint32_t capacity = std::min( wanted, capacityMax );
   const auto hostOutput = outputTable<HostOutput>( *em, Path::hostOutput, capacity );
   const auto lbOutput = outputTable<LoadBalanceOutput>( *em, Path::lbOutput, capacity );
   const auto labelOutput = outputTable<LabelOutput>( *em, Path::labelOutput, capacity );
   const auto destOutput = outputTable<DestOutput>( *em, Path::destOutput, capacity );
   for( Vexil::TableBase* const table : { static_cast<Vexil::TableBase*>( hostOutput.get() ),
                                          static_cast<Vexil::TableBase*>( lbOutput.get() ),
                                          static_cast<Vexil::TableBase*>( labelOutput.get() ),
                                          static_cast<Vexil::TableBase*>( destOutput.get() ) } )
      fit( *table, given ? capacity : table->capacity(), capacityMax );
   if( const auto& members = floodOutput->memberTable() )
      fit( *members, members->capacity(), capacityMax );

   policySmIs( em, inputDir, l2RibAgentSourceDir(), hostOutput, lbOutput, labelOutput, destOutput,
               floodOutput, status );
   policySm_->reviewQuantumIs( setting( "review-quantum", policySm_->reviewQuantum() ) );
   policySm_->floodReviewQuantumIs(
      setting( "flood-review-quantum", policySm_->floodReviewQuantum() ) );
   policySm_->hammerReviewIntervalIs(
      setting( "hammer-interval", policySm_->hammerReviewInterval() ) );
   policySm_->sourceHoldTimeIs( setting( "source-hold", policySm_->sourceHoldTime() ) );
   staticHostSmIs( em, l2RibAgentSourceDir(), bridgingConfig() );
   statusPublisher_ = std::make_unique<StatusPublisher>( *em, activityManager(), policySm_ );

   pluginContextIs();
   pluginContext_->entityManagerIs( em );
   pluginContext_->l2RibOutputIs( hostOutput );
   pluginContext_->clockIs( activityManager().clock() );
   loadPlugins();
}

void Agent::loadPlugins() {
   if( loadTestPlugin() )
      TRACE( 5, "doMountsComplete Loading L2RibTestPlugins" );
   else
      TRACE( 5, "doMountsComplete Loading L2RibPlugins" );
   if( const auto directory = settings().find( "plugin-dir" ); directory != settings().end() )
      pluginContext_->pluginIs( Vexil::loadPlugins(
         directory->second, loadTestPlugin() ? Plugin::testCategory : Plugin::category,
         *pluginContext_ ) );
}

Agent::Progress Agent::progress() const {
   std::ostringstream text;
   text << policySm_->restartState();
   const bool complete = policySm_->restartState() == running_;
   if( complete )
      text << ", restarted in " << policySm_->restartDuration() << " s";
   else
      text << ", " << policySm_->restartEntriesLeft() << " entries left";
   return { complete, text.str() };
}

Vexil::Seconds Agent::setting( const char* name, Vexil::Seconds ifAbsent ) const {
   const auto found = settings().find( name );
   return found == settings().end() ? ifAbsent : std::stod( found->second );
}

const Vexil::Ptr<PolicySm>&
Agent::policySmIs( Vexil::Ptr<Vexil::EntityManager> em, Vexil::Ptr<const Vexil::Directory> inputDir,
                   Vexil::Ptr<const AgentSourceDir> agentInputDir,
                   Vexil::Ptr<HostOutput> hostOutput, Vexil::Ptr<LoadBalanceOutput> lbOutput,
                   Vexil::Ptr<LabelOutput> labelOutput, Vexil::Ptr<DestOutput> destOutput,
                   Vexil::Ptr<FloodSetOutput> floodOutput,
                   Vexil::Ptr<PolicySmStatus> policySmStatus ) {
   if( !policySm_ )
      policySm_ = policySmFactory( em, inputDir, agentInputDir, hostOutput, lbOutput, labelOutput,
                                   destOutput, floodOutput, policySmStatus );
   return policySm_;
}

const Vexil::Ptr<StaticHostSm>&
Agent::staticHostSmIs( Vexil::Ptr<Vexil::EntityManager> em,
                       Vexil::Ptr<AgentSourceDir> agentInputDir,
                       Vexil::Ptr<const Bridging::Config> bridgingConfig ) {
   if( !staticHostSm_ )
      staticHostSm_ = staticHostSmFactory( em, agentInputDir, bridgingConfig );
   return staticHostSm_;
}

const Vexil::Ptr<Plugin::Context>& Agent::pluginContextIs() {
   if( !pluginContext_ )
      pluginContext_ = Vexil::makeEntity<Plugin::Context>();
   return pluginContext_;
}

Vexil::Ptr<Vexil::BaseAgent> agentFactory( const std::string& name ) {
   return Vexil::makeEntity<Agent>( name );
}

Vexil::Ptr<PolicySm>
policySmFactory( Vexil::Ptr<Vexil::EntityManager> em, Vexil::Ptr<const Vexil::Directory> sourceDir,
                 Vexil::Ptr<const AgentSourceDir> agentSourceDir, Vexil::Ptr<HostOutput> hostOutput,
                 Vexil::Ptr<LoadBalanceOutput> lbOutput, Vexil::Ptr<LabelOutput> labelOutput,
                 Vexil::Ptr<DestOutput> destOutput, Vexil::Ptr<FloodSetOutput> floodOutput,
                 Vexil::Ptr<PolicySmStatus> policySmStatus ) {
   return Vexil::makeEntity<PolicySm>( em, sourceDir, agentSourceDir,
                                       PolicySm::Tables{ hostOutput, lbOutput, labelOutput,
                                                         destOutput, floodOutput,
                                                         policySmStatus } );
}

Vexil::Ptr<StaticHostSm> staticHostSmFactory( Vexil::Ptr<Vexil::EntityManager> em,
                                              Vexil::Ptr<AgentSourceDir> agentSourceDir,
                                              Vexil::Ptr<const Bridging::Config> bridgingConfig ) {
   return Vexil::makeEntity<StaticHostSm>( em, agentSourceDir, bridgingConfig );
}

} // namespace L2Rib
