#include "engine/L2RibPolicySm.h"

#include "engine/PolicyTrace.h"
#include "engine/SourceReactors.h"

namespace L2Rib {

PolicySm::PolicySm( Ptr<Vexil::EntityManager> entityManager, Ptr<const Vexil::Directory> sourceDir,
                    Ptr<const AgentSourceDir> agentSourceDir, const Tables& output )
   : entityManager_( std::move( entityManager ) ), clock_( entityManager_->clock() ),
     output_( output ), reviewTimer_( clock_, [ this ] { handleReviewTimer(); } ),
     hammerReviewTimer_( clock_, [ this ] { handleHammerReviewTimer(); } ),
     queuedReviewTimer_( clock_, [ this ] { maybeRescheduleHostReview(); } ),
     holdTimer_( clock_, [ this ] { handleHoldTimer(); } ),
     sweepTimer_( clock_, [ this ] { handleSweepTimer(); } ) {
   queuedReviewTimer_.timeMinIs( Vexil::never );
   sourceDirIs( std::move( sourceDir ) );
   agentSourceDirIs( std::move( agentSourceDir ) );
   handleInitialized();
}

PolicySm::~PolicySm() = default;

} // namespace L2Rib
