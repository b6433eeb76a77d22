# The wall clock of one host jumps an hour, back and forth. Timers go by another
# clock; explorers and discoveries go by this one, and do so once for each hour.

source [file join [file dirname [info script]] harness.tcl]
source [file join [file dirname [info script]] servants.tcl]

set OFFSET [exec mktemp --tmpdir tqoffset-XXXXXX]
rename harness::finish harness::finishServices
proc harness::finish {} {
  variable services
  file delete $::OFFSET
  # What libfaketime shares among processes, and leaves behind.
  dict for {name service} $services {
    set pid [dict get $service pid]
    if {[dict get $service channel] ne ""} { catch {exec kill -KILL $pid} }
    file delete /dev/shm/faketime_shm_$pid /dev/shm/sem.faketime_sem_$pid
  }
  harness::finishServices
}

# Starts a service whose wall clock is moved by what clockIs says, and no other.
proc startMoved {name args} {
  set library [lindex [glob -nocomplain /usr/lib/*/faketime/libfaketimeMT.so.1] 0]
  if {$library eq ""} { error "libfaketime is not installed" }
  foreach {variable value} [list LD_PRELOAD $library FAKETIME_TIMESTAMP_FILE $::OFFSET \
    FAKETIME_NO_CACHE 1 FAKETIME_DONT_FAKE_MONOTONIC 1] {
    set ::env($variable) $value
  }
  # The sanitizers insist on coming first, without need here.
  set before [expr {[info exists ::env(ASAN_OPTIONS)] ? $::env(ASAN_OPTIONS) : ""}]
  set ::env(ASAN_OPTIONS) "$before:verify_asan_link_order=0"
  set service [startService $name {*}$args]
  unset ::env(LD_PRELOAD)
  set ::env(ASAN_OPTIONS) $before
  return $service
}

# In one step, as the service reads it at every look at the clock.
proc clockIs {offset} {
  writeFile $::OFFSET.new "$offset\n"
  file rename -force $::OFFSET.new $::OFFSET
}

# When an explorer of that authority wrote, and the discovery times it gave.
proc writesOf {authority} {
  return [lmap call [servants::withTimes putCollection] {
    if {[dict get [lindex $call 1] authority] ne $authority} continue
    list [lindex $call end] [dict get [lindex $call 1] attributes discoveryTime]
  }]
}
proc runs {authority} { return [llength [writesOf $authority]] }
proc occurrences {name text} {
  return [expr {[llength [split [string map [list $text \0] [logOf $name]] \0]] - 1}]
}

main {
  clockIs +0
  set port [freePort 127.0.0.1 127.0.0.2 127.0.0.3 127.0.0.4]
  serve 127.0.0.2 $port
  set leaf [startMoved 4a-follower -port $port -master tqmaster -hosts {tqmaster 127.0.0.2} \
    -install [dict create lib/plugins/libtqplugin-outbound.so \
      $env(TQ_FIXTURE_DIR)/libdiscovery_outbound.so]]
  # Nobody serves at the address of this one's master.
  startMoved 4b-alone -port $port -address 127.0.0.3 -master nobody -hosts {nobody 127.0.0.5}
  set master [startMoved tqstore -port $port -address 127.0.0.4]

  set retry "Failed to connect to discovery service on the master, retrying later"
  holds "explorers run" {[eventually {[runs again] >= 2 && [runs once] == 1}]}
  holds "one host fails to announce itself" {[eventually {[occurrences 4b-alone $retry] == 1}]}
  same "a discovery is stored" [store $master [record alpha one timeToLive 3600] "<x/>"] DS_SUCCESS
  set walk [call $master queryDiscoveries DQ_DISCOVERY_DATA AT_ANYANDALL "*" "*"]

  # Back: what has run is not due before its time comes again.
  clockIs -3600
  pause 1000 ;# a pass that had looked at the clock before has ended
  set before [list [runs again] [runs once]]
  pause 11000
  same "an hour back, explorers wait for their time" [list [runs again] [runs once]] $before
  same "a query is answered" [recordsOf $leaf DQ_DISCOVERY_DATA AT_ANYANDALL x y] ""
  same "a discovery is still there" [llength [recordsOf $master DQ_DISCOVERY_DATA \
    AT_ANYANDALL alpha one]] 1

  # To where it was: the passes have gone on, and the next finds it due.
  clockIs +0
  holds "with the hour, its time has come" {[eventually {[runs again] > [lindex $before 0]}]}
  same "and not that of the other" [runs once] 1

  # Forward: everything is due, once.
  set before [runs again]
  clockIs +3600
  holds "an hour ahead, all are due" {[eventually {[runs once] == 2}]}
  holds "and go on as ever" {[eventually {[runs again] >= $before + 4}]}
  same "once an hour is once" [runs once] 2
  set times [lmap write [lrange [writesOf again] $before end] {lindex $write 0}]
  # The first may come right behind the jump; between the others lie five seconds.
  foreach earlier [lrange $times 0 end-1] later [lrange $times 1 end] {
    holds "no two passes in less than five seconds" {$later - $earlier >= 4900}
  }
  holds "the firing tells the moved time" {
    abs([lindex [writesOf again] end 1] - [clock seconds] - 3600) < 60}
  same "a host that waits to announce itself goes on waiting" [occurrences 4b-alone $retry] 1

  # What idles is measured by the other clock, what expires by this one: after
  # an hour and a quarter.
  same "an iterator outlives the hour" [llength [call $walk getNextPage]] 1
  releaseIterator $walk
  same "a discovery of that hour is still there" [llength [recordsOf $master \
    DQ_DISCOVERY_DATA AT_ANYANDALL alpha one]] 1
  clockIs +7200
  same "after two hours it is not" [recordsOf $master DQ_DISCOVERY_DATA \
    AT_ANYANDALL alpha one] ""
  same "nor on the disk" [glob -nocomplain [databaseOf tqstore]/*alpha*] ""

  foreach {name service} [list 4a-follower $leaf tqstore $master] {
    holds "$name ends when it is told to" {[call $service terminate]}
    same "$name ends in order" [awaitEnd $name] 0
  }
}
