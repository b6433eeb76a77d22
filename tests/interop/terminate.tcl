# The service ends when it is told to, whatever is open at it.

source [file join [file dirname [info script]] harness.tcl]

main {
  set service [startService tqmaster]
  same "a record is stored" [store $service [record alpha one] "<x/>"] DS_SUCCESS

  # All of these are left open.
  set iterator [call $service queryDiscoveries DQ_DISCOVERY_DATA AT_ANYANDALL "*" "*"]
  same "a walk has begun" [llength [call $iterator getNextPage]] 1
  same "a payload is open" [call $service getCollectionData [record alpha one] "" data] DS_SUCCESS
  same "the next is being written" \
    [statusOf [call $service putCollection [record beta one] writer]] DS_SUCCESS
  holds "and has a piece" {[call $writer put "half"]}

  same "terminate answers" [call $service terminate] 1
  same "the process ends in order" [awaitEnd tqmaster] 0
  holds "the log says so" {[logged tqmaster "Stopped"]}
  same "nothing of the half is stored" \
    [glob -nocomplain -tails -directory [databaseOf tqmaster] *beta*.xml] ""
  same "it has nothing to complain of" [readFile [rootOf tqmaster]/log/stderr] ""
  holds "nobody listens any more" {[catch {socket 127.0.0.1 [portOf tqmaster]}]}
}
