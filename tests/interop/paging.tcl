# Discoveries come in pages of one more than the page size; the end is the
# empty page.

source [file join [file dirname [info script]] harness.tcl]

proc query {service subject} {
  return [call $service queryDiscoveries DQ_DISCOVERY_DATA AT_TQUCLIENT $subject "*"]
}

proc pageLengths {pages} { return [lmap page $pages {llength $page}] }

proc subjectsOf {pages} {
  return [lsort [lmap record [concat {*}$pages] {dict get $record subject}]]
}

main {
  set service [startService tqmaster]
  set subjects {}
  for {set i 0} {$i < 20} {incr i} {
    lappend subjects [format "host%02d" $i]
    if {[store $service [record [lindex $subjects end] paged] "<x/>"] ne "DS_SUCCESS"} {
      error "cannot store [lindex $subjects end]"
    }
  }

  set iterator [query $service "*"]
  same "the page size is 8 at first" [call $iterator pageSize] 8
  set pages [pagesOf $iterator]
  same "20 discoveries come as 9, 9 and 2" [pageLengths $pages] "9 9 2"
  same "each of them once" [subjectsOf $pages] $subjects
  same "past the end, pages are empty" [call $iterator getNextPage] ""
  releaseIterator $iterator

  foreach {pageSize expected} [list \
    0 [lrepeat 20 1] \
    1 [lrepeat 10 2] \
    18 {19 1} \
    19 {20} \
    64 {20} \
    2147483647 {20}] {
    set iterator [query $service "*"]
    call $iterator pageSize $pageSize
    same "the page size reads back as $pageSize" [call $iterator pageSize] $pageSize
    set pages [pagesOf $iterator]
    same "page size $pageSize gives its pages" [pageLengths $pages] $expected
    same "page size $pageSize gives each discovery once" [subjectsOf $pages] $subjects
    releaseIterator $iterator
  }

  set iterator [query $service "*"]
  call $iterator pageSize -1
  same "page size -1 gives empty pages" [call $iterator getNextPage] ""
  same "always" [call $iterator getNextPage] ""
  call $iterator pageSize 2
  same "and takes nothing from the pages after" [pageLengths [pagesOf $iterator]] "3 3 3 3 3 3 2"
  releaseIterator $iterator

  set iterator [query $service "host1*"]
  same "a pattern selects" [subjectsOf [pagesOf $iterator]] [lrange $subjects 10 19]
  releaseIterator $iterator

  set iterator [query $service "nobody"]
  same "nothing found is an empty page, no exception" [call $iterator getNextPage] ""
  releaseIterator $iterator

  # Two walks at a time do not disturb each other.
  set one [query $service "*"]
  set other [query $service "*"]
  call $one pageSize 3
  same "one walk" [llength [call $one getNextPage]] 4
  same "another walk" [llength [call $other getNextPage]] 9
  same "the first goes on where it was" [pageLengths [pagesOf $one]] "4 4 4 4"
  same "so does the other" [pageLengths [pagesOf $other]] "9 2"
  releaseIterator $one
  releaseIterator $other
}
