# The commands a person types; the presets in CMakePresets.json do the work.

JOBS ?= $(shell nproc)
# Most tests wait: all plain ones together use a processor for a fifth of their time.
TEST_JOBS ?= $(shell expr 4 '*' $(JOBS))
# Under the sanitizers they compute for a third of it.
run-asan: TEST_JOBS := $(shell expr 3 '*' $(JOBS))
FUZZ_SECONDS ?= 60
# Of hostile messages in torture.
TORTURE_MINUTES ?= 5

.PHONY: run fleet fleets packages test-packages test check test-asan test-tsan fuzz torture bench lint install deps help
.PHONY: build-check build-asan build-fuzz run-check run-asan run-fuzz quick-check quick-dev tidy mutants

help:
	@echo "make run    build, start a master on this machine and show what it finds"
	@echo "make fleet  the same with a fleet of five hosts, to play with"
	@echo "make fleets  two fleets, and a PostgreSQL with what both masters know"
	@echo "            all: PORT=... for another port than 27511; run: WEB_PORT=... for 27580"
	@echo "make test   build and run every test, plain, under the sanitizers, and by fuzzing"
	@echo "make check  what is to be done between two commits: format, house and unit tests"
	@echo "make bench  build and run the benchmarks, print the table"
	@echo "make test-tsan  run the tests under ThreadSanitizer, with the libraries built for it: an hour"
	@echo "make fuzz FUZZ_SECONDS=...   feed the parsers made-up inputs, 60 seconds each"
	@echo "make torture  fail system calls, kill, cut the power, set clocks, send hostile messages: hours"
	@echo "make mutants  change the sources at random places and look which tests notice: hours"
	@echo "make lint   check the sources with clang-tidy and cppcheck"
	@echo "make install DESTDIR=...   install a release build"
	@echo "make packages  make Debian packages, below build/packages"
	@echo "make test-packages  make them twice, compare them, and try them out (as root)"

# Installs the Debian packages that are missing; does nothing when none is.
deps:
	@packaging/install-dependencies.sh

run: deps
	cmake --preset release
	cmake --build --preset release --parallel $(JOBS)
	@packaging/run-here.sh build/release

fleet: deps
	cmake --preset release
	cmake --build --preset release --parallel $(JOBS)
	@packaging/fleet.sh build/release

fleets: deps
	cmake --preset release
	cmake --build --preset release --parallel $(JOBS)
	@packaging/fleets.sh build/release

# The tests wait most of the time; what comes next is built meanwhile, with what
# they leave of the processors.
test: quick-check
	$(MAKE) build-check
	$(MAKE) --jobs=3 run-check tidy build-asan BESIDE='nice -n 19'
	$(MAKE) --jobs=2 run-asan fuzz FUZZ_SECONDS=10 BESIDE='nice -n 19'

# What fails within two minutes when it is wrong: how the sources are written and
# whether the house keeps its order.
quick-check quick-dev: quick-%: deps
	packaging/check-format.sh
	cmake --preset $*
	cmake --build --preset $* --parallel $(JOBS) --target unit_house
	build/$*/bin/unit_house --gtest_brief=1

# Builds with what developers build with, which compiles the least after a change.
check: quick-dev
	cmake --build --preset dev --parallel $(JOBS) --target unit_tests
	ctest --preset dev -L '^unit_' --parallel $(TEST_JOBS)

# Beside the tests, so it needs what they were built from.
tidy:
	$(BESIDE) packaging/tidy.sh build/check $(JOBS)

# Which of 100 changes at random places of the library, and 50 of the framework,
# no test notices; tests/mutation/mutate.py has more.
MUTANTS ?= /var/tmp/mutants
MUTANT_SEED ?= 1
mutants: deps
	tests/mutation/mutate.py run discovery --seed $(MUTANT_SEED) --count 100 --work $(MUTANTS)
	tests/mutation/mutate.py run ozf --seed $(MUTANT_SEED) --count 50 --work $(MUTANTS)
	tests/mutation/mutate.py report --work $(MUTANTS)

test-asan: build-asan
	$(MAKE) run-asan

build-check build-asan build-fuzz: build-%: deps
	$(BESIDE) cmake --preset $*
	$(BESIDE) cmake --build --preset $* --parallel $(JOBS)

run-check run-asan: run-%:
	ctest --preset $* --parallel $(TEST_JOBS)

# The ORB and the other libraries are built once, too, so that what they do between
# threads is seen. TSAN_TESTS: arguments of ctest that choose among the tests.
TSAN_LIBRARIES ?= build/tsan/libraries
TSAN_TESTS ?=
test-tsan: deps
	@packaging/install-dependencies.sh tsan
	tests/tsan/build-libraries.sh $(TSAN_LIBRARIES) $(JOBS)
	cmake --preset tsan
	cmake --build --preset tsan --parallel $(JOBS)
	@tests/tsan/run.sh build/tsan $(TSAN_LIBRARIES) $(TEST_JOBS) $(TSAN_TESTS)

# Made-up inputs for whatever reads what others wrote; each target that long,
# two at a time.
fuzz: build-fuzz
	$(MAKE) run-fuzz

run-fuzz:
	@$(BESIDE) tests/fuzz/run.sh build/fuzz $(FUZZ_SECONDS)

# What the tests do for seconds, for as long as it takes.
torture: deps
	cmake --preset check
	cmake --build --preset check --parallel $(JOBS) --target torture
	@tests/torture/run.sh build/check $(TORTURE_MINUTES) $(SEED)

bench: deps
	cmake --preset bench
	cmake --build --preset bench --parallel $(JOBS)
	@bench/run.sh build/bench

lint: deps
	@packaging/install-dependencies.sh lint
	cmake --preset dev
	@packaging/lint.sh build/dev

install: deps
	cmake --preset release
	cmake --build --preset release --parallel $(JOBS)
	DESTDIR=$(DESTDIR) cmake --install build/release

packages: deps
	@packaging/install-dependencies.sh packages
	packaging/packages.sh build/packages

# Packages tell nothing of where they were made.
test-packages: packages
	packaging/packages.sh build/packages-made/again/elsewhere
	cd build/packages && sha256sum *.deb >../packages-made/sums
	cd build/packages-made/again/elsewhere && sha256sum --check ../../sums
	tests/packages/run.sh build/packages
