#include "engine/L2RibPolicySm.h"

#include "engine/PolicyTrace.h"
#include "engine/SourceReactors.h"

namespace L2Rib {

namespace {
// The top of the id space is never handed out.
constexpr uint64_t highestOutputId = 0xFFFFFFFFFFFF0000;
} // namespace

PolicySm::PolicySm( Ptr<Vexil::EntityManager> entityManager, Ptr<const Vexil::Directory> sourceDir,
                    Ptr<const AgentSourceDir> agentSourceDir, const Tables& output )
   : entityManager_( std::move( entityManager ) ), clock_( entityManager_->clock() ),
     sourceDir_( std::move( sourceDir ) ), agentSourceDir_( std::move( agentSourceDir ) ),
     output_( output ),
     sourceDirReactor_( std::make_unique<SourceDirReactor>( sourceDir_, *this ) ),
     agentSourceDirReactor_( std::make_unique<AgentSourceDirReactor>( agentSourceDir_, *this ) ),
     reviewTimer_( clock_, [ this ] { handleReviewTimer(); } ),
     hammerReviewTimer_( clock_, [ this ] { handleHammerReviewTimer(); } ),
     floodSetTimer_( clock_, [ this ] { processFloodSetBacklog(); } ),
     holdTimer_( clock_, [ this ] { handleHoldTimer(); } ),
     withdrawalTimer_( clock_, [ this ] { handleWithdrawalTimer(); } ) {
   handleInitialized();
}

PolicySm::~PolicySm() = default;

void PolicySm::handleInitialized() {
   TRACE( 0, __PRETTY_FUNCTION__ );
   VEXIL_ASSERT( !initialized_ );
   initialized_ = true;
   VEXIL_ASSERT( Util::objTupleInvalid() ==
                 ObjTuple( ObjId( L2Rib::Constants::objIdInvalid() ), tableTypeInvalid_ ) );
   VEXIL_ASSERT( Util::otasInvalid() == ObjTupleAndSource( Util::objTupleInvalid(), sourceNone_ ) );
   tupleManagerIs( tableTypeDest_, output_.status->maxDestId().value() + 1, highestOutputId );
   tupleManagerIs( tableTypeLoadBalance_, output_.status->maxLbId().value() + 1, highestOutputId );
   tupleManagerIs( tableTypeLabel_, output_.status->maxLabelId().value() + 1, highestOutputId );
   // Every member that an earlier run left is judged anew.
   for( const auto& entry : output_.flood->vlanFloodSet() )
      queueFloodSets( entry.key, *entry.value );
   handleSource();
   setFloodSetTimer();
   restartState_ = running_;
   maybeRescheduleHostReview();
}

} // namespace L2Rib
