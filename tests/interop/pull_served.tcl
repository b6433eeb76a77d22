# A host with an explorer is served by the other ORB: a real master keeps its
# registration, and fetches the data from it whenever a reader asks.

source [file join [file dirname [info script]] harness.tcl]
source [file join [file dirname [info script]] servants.tcl]

# What a reader gets from the master: a status and the payload.
proc readFrom {service record {filter ""}} {
  set status [call $service getCollectionData $record $filter iterator]
  if {$iterator eq $::NIL} { return [list $status ""] }
  call $iterator pageSize 100000
  set payload [join [pagesOf $iterator] ""]
  releaseIterator $iterator
  return [list $status $payload]
}

main {
  set name [encoding convertto utf-8 "disks \u00e4"]
  set port [freePort 127.0.0.1 127.0.0.2]
  serve 127.0.0.2 $port
  set master [startService tqmaster -port $port -hosts {tqowner 127.0.0.2}]

  call $master registerExplorer tqowner DiscoveryService $name volume AT_EXTSRC 42
  holds "the registration is logged" {[logged tqmaster \
    "Registered explorer: tqowner DiscoveryService $name volume 42"]}
  same "registering asks nothing of the host" [recorded] ""

  # A query finds the explorer's record without asking its host.
  set found [recordsOf $master DQ_DISCOVERY_DATA AT_EXTSRC $name volume]
  same "a query finds it" [lmap one $found {dict get $one subject}] [list $name]
  same "whose data is asked of the host that registered" \
    [lmap one $found {dict get $one sourceHost}] tqmaster
  same "without asking there" [recorded] ""

  # Reading: the record is looked for under the registered type, then its data
  # is opened with the reader's filter and again without, whole each time.
  set wanted [record $name volume authType AT_EXTSRC]
  set theirs [record $name volume authType AT_EXTSRC queryType DQ_UNDEFINED priority 3 \
    timeToLive 60 discoveryTime 1000 sourceHost tqowner sourceServiceName DiscoveryService]
  set payload [string repeat "0123456789abcdef" 128] ;# two pages of the writer, three of the host
  answer queryDiscoveries [list [list $theirs]]
  answer getCollectionData [list DS_SUCCESS $payload]
  same "the data comes from the host" [readFrom $master $wanted "a <filter>"] \
    [list DS_SUCCESS $payload]
  set fetch [concat [lrepeat 4 CollectionDataIterator.getNextPage] CollectionDataIterator.release]
  same "the calls and their order" [recorded] [concat \
    [list [list queryDiscoveries DQ_DISCOVERY_DATA AT_EXTSRC $name volume]] \
    {DiscoveryIterator.getNextPage DiscoveryIterator.getNextPage DiscoveryIterator.release} \
    [list [list getCollectionData $theirs "a <filter>"]] $fetch \
    [list [list getCollectionData $theirs ""]] $fetch]

  # The type that is asked for is the explorer's own, not the reader's.
  forget
  same "a reader of any type" \
    [readFrom $master [record $name volume authType AT_ANYANDALL queryType DQ_UNDEFINED]] \
    [list DS_SUCCESS $payload]
  same "is asked for by the registered type" [lindex [recorded] 0] \
    [list queryDiscoveries DQ_UNDEFINED AT_EXTSRC $name volume]

  # A buffer that is just full, and one byte more.
  foreach size {1 1023 1024 1025} {
    answer getCollectionData [list DS_SUCCESS [string range $payload 0 $size-1]]
    same "$size bytes" [readFrom $master $wanted] \
      [list DS_SUCCESS [string range $payload 0 $size-1]]
  }
  answer getCollectionData [list DS_SUCCESS $payload]

  # Records come in pages; exactly one must be there, and its data must open.
  foreach {pages data calls message what} [list \
    {} {} {queryDiscoveries DiscoveryIterator.getNextPage DiscoveryIterator.release} \
    "No records found!" "no record" \
    [list [list $theirs] [list $theirs]] {} {
      queryDiscoveries DiscoveryIterator.getNextPage DiscoveryIterator.getNextPage
      DiscoveryIterator.getNextPage DiscoveryIterator.release
    } "Too many records found" "two records" \
    [list [list $theirs]] {DS_NONE_FOUND ""} {
      queryDiscoveries DiscoveryIterator.getNextPage DiscoveryIterator.getNextPage
      DiscoveryIterator.release getCollectionData
    } "Failed to get collection data: 1" "a host that refuses the data" \
    [list [list $theirs]] nil {
      queryDiscoveries DiscoveryIterator.getNextPage DiscoveryIterator.getNextPage
      DiscoveryIterator.release getCollectionData
    } "Caught CORBA Exception while reading collection data: " "data without an iterator" \
    [list [list $theirs]] {DS_SUCCESS ""} {
      queryDiscoveries DiscoveryIterator.getNextPage DiscoveryIterator.getNextPage
      DiscoveryIterator.release getCollectionData
      CollectionDataIterator.getNextPage CollectionDataIterator.release
    } "Collection data returned has no data" "an empty payload" \
    fail {} queryDiscoveries \
    "Caught CORBA Exception while querying for discoveries: " "a host that fails" \
    nil {} queryDiscoveries \
    "Caught CORBA Exception while querying for discoveries: " "no iterator of records"] {
    forget
    set before [string length [logOf tqmaster]]
    answer queryDiscoveries $pages
    answer getCollectionData $data
    same "$what does not open" [readFrom $master $wanted] {DS_OPEN_FAILED {}}
    same "$what: the calls" [lmap call [recorded] {lindex $call 0}] [list {*}$calls]
    holds "$what: the log says so" {[string first $message [logOf tqmaster] $before] >= 0}
  }
  holds "the side that failed is named as it always was" {
    [logged tqmaster "Failed to target open collection data"]}

  # The host is a client as well: a refresh asks each client once, under whatever
  # authorities it is known.
  answer queryDiscoveries [list [list $theirs]]
  answer getCollectionData [list DS_SUCCESS "<DiscoveredItems/>"]
  foreach authority {volume filesystem} {
    same "filter data of $authority is stored" [store $master \
      [record tqowner $authority queryType DQ_FILTER_DATA authType AT_EXTSRC] \
      "<DiscoveredItems/>"] DS_SUCCESS
  }
  forget
  same "a refresh begins" [call $master restartAllPushTimers] 1
  holds "the client is asked to run its explorers" {
    [eventually {[llength [recorded restartLocalPushTimer]] >= 1}]}
  # A second refresh is refused until the first has ended.
  holds "the refresh ends" {[eventually {[call $master restartAllPushTimers]}]}
  holds "the client is asked again by the next" {
    [eventually {[llength [recorded restartLocalPushTimer]] >= 2}]}
  holds "and that ends too" {[eventually {[call $master restartAllPushTimers]}]}
  holds "once each" {[llength [recorded restartLocalPushTimer]] <= 3}

  holds "the service still serves" {[call $master _is_a $SERVICE_ID]}
}
