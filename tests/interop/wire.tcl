# What travels: the members of a record, names of any kind, the identities of
# the interfaces, and every version of the transport.

source [file join [file dirname [info script]] harness.tcl]

# A call that keeps to no interface, to send what the types forbid.
proc callAs {reference signature args} {
  return [corba::dii -timeout $::CALL_DEADLINE $reference $signature {*}$args]
}

main {
  set service [startService tqmaster]

  # Every member of a record.
  set now [clock seconds]
  same "a record is stored" [store $service \
    [record alpha wire authType AT_EXTSRC priority 7 colType CT_REAL_TIME \
      colStorage CS_LOCALONLY timeToLive 3600 discoveryTime $now sourceHost elsewhere \
      sourceServiceName other] "<x/>"] DS_SUCCESS
  set found [recordsOf $service DQ_DISCOVERY_DATA AT_ANYANDALL alpha wire]
  same "one record comes back" [llength $found] 1
  set one [lindex $found 0]
  same "its members keep their order" [dict keys $one] \
    {queryType subject authority authType attributes sourceHost sourceServiceName}
  same "its attributes keep their order" [dict keys [dict get $one attributes]] \
    {colType colStorage priority timeToLive discoveryTime}
  same "the kind of query is not told" [dict get $one queryType] DQ_UNDEFINED
  same "subject" [dict get $one subject] alpha
  same "authority" [dict get $one authority] wire
  same "authority type" [dict get $one authType] AT_EXTSRC
  same "the host is the one that answers" [dict get $one sourceHost] tqmaster
  same "so is the service" [dict get $one sourceServiceName] DiscoveryService
  set attributes [dict get $one attributes]
  same "collection type" [dict get $attributes colType] CT_REAL_TIME
  same "collection storage" [dict get $attributes colStorage] CS_LOCALONLY
  same "discovery time" [dict get $attributes discoveryTime] $now
  same "a stored record's priority reads as 0" [dict get $attributes priority] 0
  holds "what is left to live has not grown" \
    {[dict get $attributes timeToLive] > 3500 && [dict get $attributes timeToLive] <= 3600}

  same "filter data is stored" [store $service \
    [record beta wire queryType DQ_FILTER_DATA] "<f/>"] DS_SUCCESS
  set found [recordsOf $service DQ_FILTER_DATA AT_ANYANDALL beta wire]
  same "filter data is found as such" [llength $found] 1
  same "and does not say so either" [dict get [lindex $found 0] queryType] DQ_UNDEFINED

  # Names. Text is UTF-8 on the wire; Combat passes bytes on as they are.
  foreach name [list "with space" "50%" {quo"te's <&>} "a/b" "..\\up" \
    [encoding convertto utf-8 "K\u00f6ln \u6771\u4eac"]] {
    same "\"$name\" is stored" [store $service [record $name names] $name] DS_SUCCESS
    set found [recordsOf $service DQ_DISCOVERY_DATA AT_TQUCLIENT $name names]
    same "\"$name\" is found under its name" \
      [lmap one $found {dict get $one subject}] [list $name]
    same "the payload of \"$name\" opens" \
      [call $service getCollectionData [record $name names] "" iterator] DS_SUCCESS
    if {$iterator ne $NIL} {
      call $iterator pageSize 100
      same "it is the right one" [call $iterator getNextPage] $name
      releaseIterator $iterator
    }
  }

  # Empty strings are strings. A record of nothing but them names nothing.
  set empty [record "" ""]
  same "an empty record is read as one" \
    [call $service getCollectionData $empty "" iterator] DS_LOGIC_ERROR
  same "an empty record is not stored" [statusOf [call $service putCollection $empty writer]] \
    DS_OPEN_FAILED
  same "an empty filter, host and service are strings too" \
    [store $service [record gamma wire sourceHost "" sourceServiceName ""] "<x/>"] DS_SUCCESS
  same "and open" [call $service getCollectionData [record gamma wire] "" iterator] DS_SUCCESS
  releaseIterator $iterator
  same "empty patterns leave nothing out" \
    [llength [recordsOf $service DQ_DISCOVERY_DATA AT_ANYANDALL "" ""]] \
    [llength [recordsOf $service DQ_DISCOVERY_DATA AT_ANYANDALL "*" "*"]]

  # Identities.
  foreach interface {DiscoveryService DiscoveryIterator CollectionDataIterator RemoteWriter} {
    same "the service is a DiscoveryService only ($interface)" \
      [call $service _is_a $types::REMOTE/$interface:1.0] [expr {$interface eq "DiscoveryService"}]
  }
  set iterator [call $service queryDiscoveries DQ_DISCOVERY_DATA AT_ANYANDALL "*" "*"]
  holds "a query gives a DiscoveryIterator" \
    {[call $iterator _is_a $types::REMOTE/DiscoveryIterator:1.0]}
  releaseIterator $iterator
  call $service getCollectionData [record alpha wire authType AT_EXTSRC] "" iterator
  holds "reading gives a CollectionDataIterator" \
    {[call $iterator _is_a $types::REMOTE/CollectionDataIterator:1.0]}
  releaseIterator $iterator
  call $service putCollection [record epsilon wire] writer
  holds "writing gives a RemoteWriter" {[call $writer _is_a $types::REMOTE/RemoteWriter:1.0]}
  call $writer close

  # Versions of the transport.
  foreach version {1.0 1.1 1.2} {
    set older [connect tqmaster $version]
    holds "IIOP $version reaches the service" {[call $older _is_a $SERVICE_ID]}
    same "IIOP $version stores" \
      [store $older [record delta "v$version"] "over" " $version"] DS_SUCCESS
    same "IIOP $version finds" \
      [llength [recordsOf $older DQ_DISCOVERY_DATA AT_ANYANDALL delta "v$version"]] 1
    same "IIOP $version opens" \
      [call $older getCollectionData [record delta "v$version"] "" iterator] DS_SUCCESS
    same "IIOP $version reads" [join [pagesOf $iterator] ""] "over $version"
    releaseIterator $iterator
    corba::release $older
  }

  # What the types forbid is refused, and the service goes on.
  raises "a kind of query that does not exist" MARSHAL {
    callAs $service [list [list Object] queryDiscoveries \
      {{in {unsigned long}} {in {unsigned long}} {in string} {in string}}] 17 0 "*" "*"
  }
  raises "an operation that does not exist" BAD_OPERATION {
    callAs $service {void noSuchOperation {}}
  }
  raises "parameters that are missing" MARSHAL {
    callAs $service [list [list Object] queryDiscoveries {{in {unsigned long}}}] 1
  }
  raises "an object that does not exist" OBJECT_NOT_EXIST {
    call [corba::string_to_object \
      corbaloc:iiop:1.2@127.0.0.1:[portOf tqmaster]/NoSuchService] _is_a $SERVICE_ID
  }
  holds "the service still serves" {[call $service _is_a $SERVICE_ID]}
}
