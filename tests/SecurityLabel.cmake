# Read by ctest after the discovered tests: the C API's consent cases are security checks too,
# though they live with the rest of the C API's tests. A test this tree does not have is passed
# over by ctest.
foreach(name CApi.OptingInAfterAKeptStopSendsWithTheConfigurationTakenWhileStopped
             CApi.ATransportThatQueuesSeesEveryRequestGivenUpOnceStopForgetOrDestroyReturned)
  set_tests_properties(${name} PROPERTIES LABELS "unit;security")
endforeach()
