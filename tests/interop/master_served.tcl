# The master is served by the other ORB: a real service announces its pull
# explorers to it, writes its discoveries there, and passes queries on.

source [file join [file dirname [info script]] harness.tcl]
source [file join [file dirname [info script]] servants.tcl]

# Its leading digit lets it announce itself at once.
set FOLLOWER 4a-follower
set SUBJECT [encoding convertto utf-8 "host \u00e4"]

# The calls of one write of an authority, and those of the next: from its
# putCollection to the first close behind it. Writes never overlap, as one timer
# makes them all.
proc writesOf {authority} {
  set writes {}
  set current {}
  foreach call [servants::withTimes] {
    if {[lindex $call 0] eq "putCollection"} {
      set current {}
      if {[dict get [lindex $call 1] authority] ne $authority} continue
      lappend current $call
    } elseif {[string match RemoteWriter.* [lindex $call 0]] && $current ne ""} {
      lappend current $call
      if {[lindex $call 0] eq "RemoteWriter.close"} {
        lappend writes $current
        set current {}
      }
    }
  }
  return $writes
}

# The text that a program prints, while the calls that it makes are answered.
proc outputOf {args} {
  set harness::output ""
  set harness::ended 0
  set channel [open [list | {*}$args 2>@1] r]
  fconfigure $channel -blocking 0
  fileevent $channel readable [list apply {{channel} {
    append harness::output [read $channel]
    if {[eof $channel]} { set harness::ended 1 }
  }} $channel]
  if {![eventually {$harness::ended}]} { catch {exec kill -KILL [pid $channel]} }
  fileevent $channel readable {}
  fconfigure $channel -blocking 1
  if {[catch {close $channel} problem]} { append harness::output "\n$problem" }
  return $harness::output
}

main {
  set port [freePort 127.0.0.1 127.0.0.2]
  serve 127.0.0.2 $port
  set started [clock seconds]
  set leaf [startService $FOLLOWER -port $port -master tqmaster -hosts {tqmaster 127.0.0.2} \
    -install [dict create lib/plugins/libtqplugin-outbound.so \
      $env(TQ_FIXTURE_DIR)/libdiscovery_outbound.so]]

  # It announces its pull explorers in their order, before anything else.
  holds "it writes after a while" {[eventually {[llength [writesOf again]] >= 2}]}
  same "its pull explorers are announced first, with a priority of 16 bits" \
    [lrange [recorded] 0 1] [list \
      [list registerExplorer $FOLLOWER DiscoveryService $SUBJECT first AT_TQUCLIENT 42] \
      [list registerExplorer $FOLLOWER DiscoveryService $SUBJECT second AT_TQUCLIENT 4464]]
  same "and once only" [llength [recorded registerExplorer]] 2
  holds "the log says so" {
    [logged $FOLLOWER "Registering 2 explorers with master server"] &&
    [logged $FOLLOWER "Successfully registered explorers with master"]}

  # Each write: the record, the payload in pieces of 1,024 bytes, the close.
  set letters [string range [string repeat abcdefghijklmnopqrstuvwxyz 120] 0 2999]
  foreach {authority validity} {again 0 once 3600} {
    set write [lindex [writesOf $authority] 0]
    same "$authority: the steps" [lmap call $write {lindex $call 0}] \
      {putCollection RemoteWriter.put RemoteWriter.put RemoteWriter.put RemoteWriter.close}
    same "$authority: the sizes" \
      [lmap call [lrange $write 1 3] {string length [lindex $call 1]}] {1024 1024 952}
    holds "$authority: the payload" {
      [join [lmap call [lrange $write 1 3] {lindex $call 1}] ""] eq $letters}
    set one [lindex $write 0 1]
    foreach {member value} [list queryType DQ_DISCOVERY_DATA subject host authority $authority \
      authType AT_TQUCLIENT sourceHost $FOLLOWER sourceServiceName DiscoveryService] {
      same "$authority: $member" [dict get $one $member] $value
    }
    set attributes [dict get $one attributes]
    foreach {member value} [list colType CT_POINT_IN_TIME colStorage CS_CENTRALREPOSITORY \
      priority 7 timeToLive $validity] {
      same "$authority: $member" [dict get $attributes $member] $value
    }
    set made [dict get $attributes discoveryTime]
    holds "$authority: the time of the firing" {$made >= $started && $made <= [clock seconds]}
  }

  # An interval that has not passed keeps an explorer out of the second pass.
  set firstPass [lindex [writesOf again] 0 0 end]
  same "an explorer whose interval has not passed runs once" [llength [writesOf once]] 1

  # What the master answers decides how far a write goes.
  foreach {operation value rest message} {
    putCollection DS_DATA_EXISTS {} "Failed to open the collection data: 5"
    put 0 {RemoteWriter.put} "Failed to write buffer"
    close DS_DATA_EXISTS
      {RemoteWriter.put RemoteWriter.put RemoteWriter.put RemoteWriter.close} ""
  } {
    set good [dict get $servants::answers $operation]
    # Both passes are waited for to their last call, so that nothing of them is
    # still to come when the next answer is set.
    forget
    answer $operation $value
    holds "$operation $value: two passes come" {
      [eventually {[llength [recorded putCollection]] >= 2 &&
        [llength [recorded]] >= 2 * (1 + [llength $rest])}]}
    set next [lindex [lsearch -all -index 0 [recorded] putCollection] 1]
    same "$operation $value: what follows" \
      [lmap call [lrange [recorded] 1 $next-1] {lindex $call 0}] $rest
    answer $operation $good
    if {$message ne ""} {
      holds "$operation $value: the log says so" {[logged $FOLLOWER $message]}
    }
  }

  # A call is noted late when the processors are busy: a single step may seem
  # short, all of them together hardly.
  set lastPass [lindex [servants::withTimes putCollection] 1 end]
  set step [expr {($lastPass - $firstPass) / 7}]
  holds "the eight passes are five seconds apart, not less" {$step >= 4900}

  # A query is passed on as it came; every page up to the empty one is fetched
  # before the first answer, and the iterator released.
  proc queryOnly {} {
    return [lmap call [recorded] {
      if {[regexp {^(putCollection|RemoteWriter)} [lindex $call 0]]} continue
      set call
    }]
  }
  set records {}
  for {set i 0} {$i < 12} {incr i} {
    lappend records [record "$SUBJECT $i" first authType AT_EXTSRC sourceHost elsewhere \
      sourceServiceName Other priority $i timeToLive 60 discoveryTime 1000]
  }
  answer queryDiscoveries [list [lrange $records 0 8] [lrange $records 9 9] [lrange $records 10 11]]
  forget
  set iterator [call $leaf queryDiscoveries DQ_FILTER_DATA AT_EXTSRC "$SUBJECT*" "f*t"]
  same "the master was asked and its iterator released" [queryOnly] [list \
    [list queryDiscoveries DQ_FILTER_DATA AT_EXTSRC "$SUBJECT*" "f*t"] \
    DiscoveryIterator.getNextPage DiscoveryIterator.getNextPage \
    DiscoveryIterator.getNextPage DiscoveryIterator.getNextPage DiscoveryIterator.release]
  forget
  set got [concat {*}[pagesOf $iterator]]
  releaseIterator $iterator
  same "its records come in order" [lmap one $got {dict get $one subject}] \
    [lmap one $records {dict get $one subject}]
  same "nobody is asked for them again" [queryOnly] ""
  same "with the attributes of the master" [lmap one $got {dict get $one attributes}] \
    [lmap one $records {dict get $one attributes}]
  same "and the follower for their host" \
    [lsort -unique [lmap one $got {dict get $one sourceHost}]] $FOLLOWER

  # An empty first page is the end.
  answer queryDiscoveries {}
  same "no records, no answer" \
    [recordsOf $leaf DQ_DISCOVERY_DATA AT_ANYANDALL nothing nothing] ""

  # A master that fails is a failure, not an empty answer.
  foreach {value what} {fail "an exception" nil "no iterator"} {
    answer queryDiscoveries $value
    raises "$what of the master" COMM_FAILURE {
      call $leaf queryDiscoveries DQ_DISCOVERY_DATA AT_ANYANDALL x y
    }
  }
  holds "the log says so" {[logged $FOLLOWER "Failed to query remote discoveries: "]}

  # What the master does when somebody there asks for data that the follower
  # makes on demand: it asks the follower for the record, which asks back here.
  # It is the last explorer in the follower's order: any other is too many.
  set wanted [record $SUBJECT second sourceHost $FOLLOWER sourceServiceName DiscoveryService]
  answer queryDiscoveries [list [list $wanted]]
  set found [recordsOf $leaf DQ_DISCOVERY_DATA AT_TQUCLIENT $SUBJECT second]
  same "the record comes back by way of the follower" \
    [lmap one $found {list [dict get $one subject] [dict get $one sourceHost]}] \
    [list [list $SUBJECT $FOLLOWER]]
  forget
  same "its payload opens at the follower" \
    [call $leaf getCollectionData [lindex $found 0] "a <filter>" iterator] DS_SUCCESS
  same "the follower makes it, with the filter" [join [pagesOf $iterator] ""] \
    "second of $SUBJECT, filtered by \"a <filter>\""
  releaseIterator $iterator
  same "and asks nobody for it" [queryOnly] ""

  # The operator's command reads from here as well.
  set payload [string repeat "0123456789" 300]
  set stored [record server rack sourceHost tqmaster sourceServiceName DiscoveryService]
  answer queryDiscoveries [list [list $stored]]
  answer getCollectionData [list DS_SUCCESS $payload]
  set env(TESSARINE_ROOT) [rootOf $FOLLOWER]
  forget
  set output [outputOf [file join $env(TQ_BIN_DIR) tqdiscoctl] -m 127.0.0.2:$port \
    show server rack --raw]
  same "a payload is read whole" $output $payload
  # From the last request on: told where the master is, the command has asked
  # for the record before, to see that it is the master.
  set calls [queryOnly]
  set calls [lrange $calls [lindex [lsearch -all -index 0 $calls getCollectionData] end] end]
  same "it is asked for by the record that was sent" [lindex $calls 0] \
    [list getCollectionData $stored ""]
  set pages [lsearch -all -inline -regexp [lmap call $calls {lindex $call 0}] \
    {^CollectionDataIterator[.](getNextPage|release)}]
  same "in pages, up to the empty one, and then released" $pages \
    [concat [lrepeat 6 CollectionDataIterator.getNextPage] CollectionDataIterator.release]

  holds "the service still serves" {[call $leaf _is_a $SERVICE_ID]}
}
