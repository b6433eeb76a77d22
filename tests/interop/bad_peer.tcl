# A host with an explorer that does not keep to the contract. Whoever asks the
# master for its data learns that there is none, and the master goes on.

source [file join [file dirname [info script]] harness.tcl]
source [file join [file dirname [info script]] servants.tcl]

set QUERY "RemotePullExplorer::collectionRequested: Caught CORBA Exception while querying for\
 discoveries: "
set READ "RemoteCollectionData::openRead: Caught CORBA Exception while reading collection data: "

# What a reader gets from the master: a status and the payload.
proc readFrom {service record} {
  set status [call $service getCollectionData $record "" iterator]
  if {$iterator eq $::NIL} { return [list $status ""] }
  call $iterator pageSize 1000000
  set payload [join [pagesOf $iterator] ""]
  releaseIterator $iterator
  return [list $status $payload]
}

main {
  set port [freePort 127.0.0.1 127.0.0.2]
  serve 127.0.0.2 $port
  set master [startService tqmaster -port $port -hosts {tqowner 127.0.0.2}]
  call $master registerExplorer tqowner DiscoveryService disks volume AT_EXTSRC 1
  set wanted [record disks volume authType AT_EXTSRC]
  set good [list [list [record disks volume authType AT_EXTSRC sourceHost tqowner \
    sourceServiceName DiscoveryService]]]
  set usual [dict merge $servants::answers \
    [dict create queryDiscoveries $good getCollectionData {DS_SUCCESS payload}]]
  set large [string repeat x 5000000]

  # {what answers message}: which answers differ from the usual, and what the
  # log says then. Combat calls an object that is gone OBJ_ADAPTER.
  # What was said less than a minute ago is not written again: the line that
  # others cause, too, comes first.
  foreach {what answers message} [list \
    "a record of a service that is not there" \
    [list queryDiscoveries [list [list [record disks volume sourceHost tqowner \
      sourceServiceName Nothing]]]] "Failed to target open collection data" \
    "records of another interface" {queryDiscoveries other} $QUERY \
    "data of another interface" {getCollectionData other} $READ \
    "records that vanish after a page" \
    {vanish DiscoveryIterator} "${QUERY}OBJ_ADAPTER" \
    "data that vanishes after a page" \
    {vanish CollectionDataIterator} "${READ}OBJ_ADAPTER" \
    "a page that is no message any more" \
    [list getCollectionData [list DS_SUCCESS $large] pageBytes 5000000] $READ \
    "a record without a name" \
    [list queryDiscoveries [list [list [record "" volume]]]] "No records found!"] {
    set servants::answers [dict merge $usual $answers]
    set before [string length [logOf tqmaster]]
    same "$what: no data" [readFrom $master $wanted] {DS_OPEN_FAILED {}}
    holds "$what: the log says so" {[string first $message [logOf tqmaster] $before] >= 0}
    set servants::answers $usual
    same "$what: the next reader has data" [readFrom $master $wanted] {DS_SUCCESS payload}
  }

  # Not as it should be, but no harm: pages larger than anybody asked for, and
  # attributes of the far end of their range.
  set payload [string range $large 0 2999999]
  answer getCollectionData [list DS_SUCCESS $payload]
  answer pageBytes 3000000
  answer queryDiscoveries [list [list [record disks volume authType AT_EXTSRC \
    sourceHost tqowner sourceServiceName DiscoveryService priority -1 \
    timeToLive 18446744073709551615 discoveryTime 18446744073709551615]]]
  holds "pages larger than anybody asked for are read" {
    [readFrom $master $wanted] eq [list DS_SUCCESS $payload]}

  holds "the service still serves" {[call $master _is_a $SERVICE_ID]}
}
