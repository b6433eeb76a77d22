# Every status that the service answers a failure with. DS_COM_ERROR is not
# among them: it stands for an object of the service's own that could not be
# activated, which no caller can bring about.

source [file join [file dirname [info script]] harness.tcl]

# The status of opening a payload; what was opened is released.
proc statusOfReading {service record} {
  set status [call $service getCollectionData $record "" iterator]
  if {$iterator eq $::NIL} {
    holds "no iterator comes with $status" {$status ne "DS_SUCCESS"}
  } else {
    same "an iterator comes with success only" $status DS_SUCCESS
    releaseIterator $iterator
  }
  return $status
}

proc payloadOf {service record} {
  call $service getCollectionData $record "" iterator
  call $iterator pageSize 1000
  set content [join [pagesOf $iterator] ""]
  releaseIterator $iterator
  return $content
}

main {
  set service [startService tqmaster]

  # Reading: exactly one discovery must be meant.
  same "a record is stored" [store $service [record alpha one] "<x/>"] DS_SUCCESS
  same "it opens" [statusOfReading $service [record alpha one]] DS_SUCCESS
  foreach {subject authority} {* one alpha * al* one alpha o* * *} {
    same "\"$subject\" by \"$authority\" is a pattern" \
      [statusOfReading $service [record $subject $authority]] DS_LOGIC_ERROR
  }
  same "an unknown subject" [statusOfReading $service [record beta one]] DS_NONE_FOUND
  same "an unknown authority" [statusOfReading $service [record alpha two]] DS_NONE_FOUND
  same "another type of authority" \
    [statusOfReading $service [record alpha one authType AT_EXTSRC]] DS_NONE_FOUND
  holds "the log tells of none" {[logged tqmaster \
    "Fount no discoveries for subject beta & authority one"]}

  same "the same names under another type are stored" \
    [store $service [record alpha one authType AT_EXTSRC] "<y/>"] DS_SUCCESS
  same "two match any type" \
    [statusOfReading $service [record alpha one authType AT_ANYANDALL]] DS_LOGIC_ERROR
  holds "the log tells of too many" {[logged tqmaster \
    "Fount too many matching discoveries for subject alpha & authority one"]}
  same "one matches its own type" [statusOfReading $service [record alpha one]] DS_SUCCESS
  same "the other matches its own" \
    [statusOfReading $service [record alpha one authType AT_EXTSRC]] DS_SUCCESS

  # Reading: the payload is gone.
  set before [glob [databaseOf tqmaster]/*.dat]
  same "a record to damage is stored" [store $service [record gamma one] "<z/>"] DS_SUCCESS
  foreach path [glob [databaseOf tqmaster]/*.dat] {
    if {$path ni $before} { file delete $path }
  }
  same "a payload that was removed" [statusOfReading $service [record gamma one]] DS_OPEN_FAILED
  holds "the log says so" {[logged tqmaster "Error encountered trying to open collection iterator"]}

  # Writing: a higher priority stays.
  same "priority 6 is stored" [store $service [record delta one priority 6] "six"] DS_SUCCESS
  same "priority 5 is refused" \
    [statusOf [call $service putCollection [record delta one priority 5] writer]] DS_DATA_EXISTS
  same "with a nil writer" $writer $NIL
  holds "the log says so" {[logged tqmaster \
    "Cannot open the db database, data with higher priority already exists."]}
  same "the stored payload stays" [payloadOf $service [record delta one]] "six"
  same "an equal priority replaces it" \
    [store $service [record delta one priority 6] "again six"] DS_SUCCESS
  same "with its payload" [payloadOf $service [record delta one]] "again six"

  # Writing: a higher priority arrives while a lower one is being written.
  call $service putCollection [record epsilon one priority 1] slow
  call $slow put "low"
  same "a higher one overtakes it" \
    [store $service [record epsilon one priority 9] "high"] DS_SUCCESS
  same "the close is refused" [statusOf [call $slow close]] DS_DATA_EXISTS
  same "the higher one stays" [payloadOf $service [record epsilon one]] "high"

  # Names that cannot be stored.
  set long [string repeat x 5000]
  foreach {subject authority what} [list "" one "an empty subject" alpha "" "an empty authority" \
    $long one "an over-long subject" alpha $long "an over-long authority"] {
    same "$what is not stored" \
      [statusOf [call $service putCollection [record $subject $authority] writer]] DS_OPEN_FAILED
    same "$what gives a nil writer" $writer $NIL
    same "$what is not read" [statusOfReading $service [record $subject $authority]] DS_LOGIC_ERROR
  }
  raises "an over-long pattern" COMM_FAILURE {
    call $service queryDiscoveries DQ_DISCOVERY_DATA AT_ANYANDALL $long "*"
  }

  # A registration lacks a name.
  foreach {host name subject authority} {
    {} DiscoveryService s a
    h {} s a
    h DiscoveryService {} a
    h DiscoveryService s {}
  } {
    # Refused without a word: an exception would keep the caller from going on.
    call $service registerExplorer $host $name $subject $authority AT_EXTSRC 1
  }
  same "nothing was registered" [recordsOf $service DQ_DISCOVERY_DATA AT_REMOTEPULL "*" "*"] ""

  # What was released or closed is gone.
  set iterator [call $service queryDiscoveries DQ_DISCOVERY_DATA AT_ANYANDALL "*" "*"]
  call $iterator release
  raises "a page of a released iterator" OBJECT_NOT_EXIST { call $iterator getNextPage }
  raises "the page size of a released iterator" OBJECT_NOT_EXIST { call $iterator pageSize }
  raises "a second release" OBJECT_NOT_EXIST { call $iterator release }
  call $service getCollectionData [record alpha one] "" iterator
  call $iterator release
  raises "bytes of a released iterator" OBJECT_NOT_EXIST { call $iterator getNextPage }
  raises "its second release" OBJECT_NOT_EXIST { call $iterator release }
  call $service putCollection [record zeta one] writer
  call $writer close
  raises "a piece after the close" OBJECT_NOT_EXIST { call $writer put "late" }
  raises "a second close" OBJECT_NOT_EXIST { call $writer close }

  holds "the service still serves" {[call $service _is_a $SERVICE_ID]}
}
