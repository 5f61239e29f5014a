#include "engine/L2RibPolicySm.h"

#include "engine/PolicyTrace.h"
#include "engine/SourceReactors.h"

namespace L2Rib {

PolicySm::PolicySm( Ptr<Vexil::EntityManager> entityManager, Ptr<const Vexil::Directory> sourceDir,
                    Ptr<const AgentSourceDir> agentSourceDir, const Tables& output )
   : entityManager_( std::move( entityManager ) ), clock_( entityManager_->clock() ),
     sourceDir_( std::move( sourceDir ) ), agentSourceDir_( std::move( agentSourceDir ) ),
     output_( output ),
     sourceDirReactor_( std::make_unique<SourceDirReactor>( sourceDir_, *this ) ),
     agentSourceDirReactor_( std::make_unique<AgentSourceDirReactor>( agentSourceDir_, *this ) ),
     reviewTimer_( clock_, [ this ] { handleReviewTimer(); } ),
     hammerReviewTimer_( clock_, [ this ] { handleHammerReviewTimer(); } ),
     queuedReviewTimer_( clock_, [ this ] { maybeRescheduleHostReview(); } ),
     floodSetTimer_( clock_, [ this ] { processFloodSetBacklog(); } ),
     holdTimer_( clock_, [ this ] { handleHoldTimer(); } ),
     withdrawalTimer_( clock_, [ this ] { handleWithdrawalTimer(); } ) {
   queuedReviewTimer_.timeMinIs( Vexil::never );
   handleInitialized();
}

PolicySm::~PolicySm() = default;

} // namespace L2Rib
