# The front door: `make run` starts Ferrybox, `make test` builds and runs every test.
DEB_PACKAGES := build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev \
	qt6-base-dev qt6-base-dev-tools libqt6dbus6 libgl-dev \
	libsecret-1-dev gnome-keyring dbus dbus-x11 desktop-file-utils \
	libcpp-httplib-dev libmicrohttpd-dev libssl-dev libsqlite3-dev openssl \
	libgtest-dev libgmock-dev libbenchmark-dev rapidjson-dev nlohmann-json3-dev \
	wrk nginx-light curl aria2 time python3

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: deps build build-asan test run bench fuzz format clean

deps:
	@missing=$$(for p in $(DEB_PACKAGES); do \
		dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed' || echo $$p; \
	done); \
	if [ -n "$$missing" ]; then \
		echo "Installing:" $$missing; \
		$(SUDO) apt-get update -qq && \
		DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi

build: deps
	cmake --preset default >/dev/null
	cmake --build --preset default

build-asan: deps
	cmake --preset asan >/dev/null
	cmake --build --preset asan

test: build build-asan
	ctest --preset default
	ctest --preset asan

run: build
	scripts/run $(ARGS)

bench: deps
	cmake --preset bench >/dev/null
	cmake --build --preset bench
	scripts/bench

fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz
	scripts/fuzz $(FUZZ_SECONDS)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-asan build-bench build-fuzz
