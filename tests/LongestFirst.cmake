# Read by ctest after the discovered tests: the longest ones start first. A fresh tree has no
# timings of its own to order by, and the kill test alone outlasts half the rest of the suite
# under ThreadSanitizer; started in the middle, it ran on alone at the end. A test this tree
# does not have is passed over by ctest.
foreach(name DemoAgainstDevserver.NoEventIsLostOrStoredTwiceByAKillAnExitOrASlowService
             OutboxTest.FailedRequestsHoldTheBuildsBackAndAllGoAfterAKill
             Forget.AKillAtAnyMomentOfForgettingNeverLeavesAHalfForgottenInstall
             DemoAgainstDevserver.TheInspectorShowsRequestsAndSwitchesFaults)
  set_tests_properties(${name} PROPERTIES COST 5000)
endforeach()
