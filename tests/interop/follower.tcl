# A service that is not the master: on its own it has nothing to answer with,
# beside a living master it answers from there.

source [file join [file dirname [info script]] harness.tcl]

main {
  set port [freePort 127.0.0.1 127.0.0.2]
  set leaf [startService tqleaf -port $port -master tqmaster -hosts {tqmaster 127.0.0.2}]

  # Nobody listens at the master's address.
  raises "a query without a master" COMM_FAILURE {
    call $leaf queryDiscoveries DQ_DISCOVERY_DATA AT_ANYANDALL "*" "*"
  }
  holds "it was the service that refused" {[logged tqleaf "Failed to create discovery iterator"]}
  same "a follower restarts no other's timers" [call $leaf restartAllPushTimers] 0
  call $leaf restartLocalPushTimer
  same "reading finds no explorer" \
    [call $leaf getCollectionData [record alpha one] "" iterator] DS_NONE_FOUND
  same "and its iterator is nil" $iterator $NIL
  holds "the log says that there was none to ask" {[logged tqleaf \
    "Null iterator returned. Fount no discoveries for subject alpha & authority one"]}
  same "writing cannot be passed on" \
    [statusOf [call $leaf putCollection [record alpha one] writer]] DS_OPEN_FAILED
  same "and its writer is nil" $writer $NIL
  holds "the service still serves" {[call $leaf _is_a $SERVICE_ID]}

  # The master is there.
  set master [startService tqmaster -port $port -address 127.0.0.2]
  same "the master restarts timers" [call $master restartAllPushTimers] 1
  same "the follower still does not" [call $leaf restartAllPushTimers] 0
  same "what the follower is given is stored" \
    [store $leaf [record alpha one] "from the leaf, " [string repeat "." 3000]] DS_SUCCESS
  holds "on the master" {[llength [glob -nocomplain [databaseOf tqmaster]/*.xml]] == 1}
  same "and not on the follower" [glob -nocomplain [databaseOf tqleaf]/*.xml] ""
  call $master getCollectionData [record alpha one] "" iterator
  call $iterator pageSize 100000
  same "the master has the payload" [join [pagesOf $iterator] ""] \
    "from the leaf, [string repeat "." 3000]"
  releaseIterator $iterator
  foreach i {1 2 3 4 5 6 7 8 9 10 11} { store $master [record "host$i" one] "<x/>" }
  set iterator [call $leaf queryDiscoveries DQ_DISCOVERY_DATA AT_ANYANDALL "host*" one]
  same "the follower pages through what the master has" \
    [lmap page [pagesOf $iterator] {llength $page}] "9 2"
  releaseIterator $iterator

  # The master goes while the follower writes to it.
  call $leaf putCollection [record beta one] writer
  holds "a piece reaches the master" {[call $writer put "x"]}
  call $master terminate
  same "the master ends" [awaitEnd tqmaster] 0
  same "the close tells that it did not arrive" [statusOf [call $writer close]] DS_COM_ERROR
  raises "a query after that" COMM_FAILURE {
    call $leaf queryDiscoveries DQ_DISCOVERY_DATA AT_ANYANDALL "*" "*"
  }
}
