# The front door: each target says in a line what it is for; the work is in CMake and tools/.

.PHONY: all aarch64 armhf bench build check clean deb format fuzz fuzz-coverage help install musl \
  mutate prove run soak targets test uclibc uninstall

export DESTDIR PREFIX SYSCONFDIR

# PUBLISH=1 notes in tests/by-hand.md that the target went well.
note = @$(if $(PUBLISH),tools/by-hand note $@,:)
# The same for the table of cross builds in docs/porting.md.
note-target = @$(if $(PUBLISH),tools/target note $@,:)

all: build

help:  ## list the targets
	@grep -E '^[a-z0-9-]+:.*##' $(MAKEFILE_LIST) | sed 's/:.*##/:/'

build:  ## build the daemon: build/release/tavlo
	@tools/dependencies build
	@BUILD_TESTING=OFF tools/build release

run:  ## show a session with a demonstration set-up, then stay until Ctrl-C
	@tools/dependencies run
	@BUILD_TESTING=OFF tools/build release
	@tools/demonstration

install:  ## install the release build: PREFIX=/usr/local, DESTDIR=, SYSCONFDIR=PREFIX/etc
	@tools/dependencies build
	@BUILD_TESTING=OFF tools/build release
	@tools/install

uninstall:  ## take away what `make install` with the same variables has put there
	@BUILD_TESTING=OFF tools/build release
	@tools/install remove

deb:  ## make the Debian packages in build/deb, the one with the debug file too
	@tools/dependencies deb
	@BUILD_TESTING=OFF tools/build release
	@tools/deb

check:  ## build it and run what each change must pass, in some minutes
	@tools/dependencies check-build
	@tools/dependencies check & TAVLO_BENCH=ON tools/build release; built=$$?; wait $$! && exit $$built
	@tools/check

prove:  ## run all the rest: sanitizers, clang-tidy, AArch64, slow tests, mutations; WITHIN=minutes to begin in
	@tools/dependencies check-build
	@tools/dependencies prove & tools/build tsan >/dev/null 2>&1; wait $$!  # a step tells if that fails
	@tools/check prove $(if $(WITHIN),--within $(WITHIN))

test:  ## run the tests whose names match ONLY=pattern; PRESET=asan, REPEAT=20, LOAD=2 for busy loops
	@tools/dependencies check
	@tools/test '$(ONLY)' $(if $(PRESET),--preset $(PRESET)) $(if $(REPEAT),--repeat $(REPEAT)) \
	  $(if $(LOAD),--load $(LOAD))

aarch64:  ## build for AArch64, run all tests of that build under an emulator, and show a session
	@tools/dependencies aarch64
	@tools/check aarch64
	$(note-target)
	$(note)

armhf:  ## the same for 32-bit ARM
	@tools/dependencies armhf
	@tools/check armhf
	$(note-target)
	$(note)

musl:  ## the same for AArch64 with musl, whose toolchain it makes first: an hour, then it stays
	@tools/dependencies musl
	@tools/check musl
	$(note-target)
	$(note)

uclibc:  ## the same with uClibc-ng
	@tools/dependencies uclibc
	@tools/check uclibc
	$(note-target)
	$(note)

targets:  ## all four of them, one after another: some hours
	@$(MAKE) aarch64
	@$(MAKE) armhf
	@$(MAKE) musl
	@$(MAKE) uclibc

fuzz:  ## feed made-up inputs to what reads foreign ones: a minute each, or TIME=seconds TARGET=name
	@tools/dependencies prove
	@tools/fuzz $(or $(TIME),60) $(TARGET)

fuzz-coverage:  ## show what the inputs of the fuzz targets reach, and what they do not
	@tools/dependencies prove
	@tools/fuzz coverage $(TARGET)
	$(note)

soak:  ## a long run of mixed requests while everything changes: 100,000, or REQUESTS=number
	@tools/dependencies check
	@BUILD_TESTING=OFF tools/build release
	@tests/system/soak.py $(REQUESTS)
	$(note)

mutate:  ## break the code in many places and see that the tests notice: all, or ONLY=folder, file or file:number
	@tools/dependencies prove
	@tools/mutate $(ONLY)

bench:  ## measure it beside other servers, some twenty minutes; QUICK=1 a look, PUBLISH=1 for docs/
	@tools/dependencies bench
	@BUILD_TESTING=OFF TAVLO_BENCH=ON tools/build release
	@tools/bench $(if $(QUICK),--quick) $(if $(PUBLISH),--publish) $(BENCH)
	$(note)

format:  ## rewrite the sources in the house's format
	@tools/dependencies check
	@tools/format

clean:  ## remove what was built
	rm -rf build
