// The memory of the host: one item. It is built with "go build memory.go" or
// "gccgo -o memory memory.go", and the program put into explorers.d.
package main

import (
	"bufio"
	"encoding/json"
	"fmt"
	"os"
)

func main() {
	file, err := os.Open("/proc/meminfo")
	if err != nil {
		fmt.Fprintln(os.Stderr, err)
		os.Exit(1)
	}
	defer file.Close()
	facts := map[string]uint64{}
	for lines := bufio.NewScanner(file); lines.Scan(); {
		var name string
		var kib uint64
		if n, _ := fmt.Sscanf(lines.Text(), "%s %d kB", &name, &kib); n == 2 {
			switch name {
			case "MemTotal:":
				facts["total"] = kib * 1024
			case "MemAvailable:":
				facts["available"] = kib * 1024
			}
		}
	}
	json.NewEncoder(os.Stdout).Encode(facts)
}
