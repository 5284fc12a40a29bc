# SPDX-License-Identifier: GPL-3.0-or-later
# The front door: `make run` starts Ferrybox, `make test` builds and runs every test.
DEB_PACKAGES := build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev \
	qt6-base-dev qt6-base-dev-tools libqt6dbus6 libgl-dev \
	libsecret-1-dev gnome-keyring dbus dbus-x11 desktop-file-utils librsvg2-bin man-db \
	libcpp-httplib-dev libdtl-dev libmicrohttpd-dev libssl-dev libsqlite3-dev libpq-dev postgresql openssl \
	libgtest-dev libgmock-dev libbenchmark-dev rapidjson-dev nlohmann-json3-dev \
	wrk nginx-light caddy curl aria2 iproute2 time python3 python3-selenium chromium chromium-driver \
	xvfb xdotool trayer libxcb1-dev lintian yt-dlp ffmpeg

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)
# Where `make install` puts Ferrybox; DESTDIR=DIR stages the same files below DIR.
PREFIX ?= /usr/local
# Sets as_root to sudo when the folder $(1), or the nearest one of its parents that exists,
# cannot be written.
as_root_for = dir="$(1)"; while [ ! -e "$$dir" ]; do dir=$$(dirname "$$dir"); done; \
	if [ -w "$$dir" ]; then as_root=; else as_root="$(SUDO)"; fi

.PHONY: deps build build-asan test run install uninstall deb bench fuzz format clean

# Caddy is here for the tests of the reverse-proxy files, PostgreSQL for the tests of the service
# on it (they run private servers of their own): the system services their packages start are
# stopped again when this installed them.
deps:
	@missing=$$(for p in $(DEB_PACKAGES); do \
		dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed' || echo $$p; \
	done); \
	if [ -n "$$missing" ]; then \
		echo "Installing:" $$missing; \
		$(SUDO) apt-get update -qq && \
		DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing && \
		for service in caddy postgresql; do \
			! echo " $$missing " | grep -q " $$service " || \
			$(SUDO) systemctl disable --now $$service >/dev/null 2>&1 || true; \
		done; \
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

# Build as yourself, then install (asking sudo only when PREFIX is not yours); the list of
# installed files stays in build/install_manifest.txt for `make uninstall`.
install: build
	@$(call as_root_for,$(DESTDIR)$(PREFIX)); \
	$$as_root env DESTDIR="$(DESTDIR)" cmake --install build --prefix "$(PREFIX)" --strip && \
	$$as_root chown --reference=build build/install_manifest.txt

uninstall:
	@test -s build/install_manifest.txt || { echo "build/install_manifest.txt is missing:" \
		"nothing was installed from this tree"; exit 1; }
	@$(call as_root_for,$(DESTDIR)$$(dirname "$$(head -n1 build/install_manifest.txt)")); \
	sed 's|^|$(DESTDIR)|' build/install_manifest.txt | $$as_root xargs -d '\n' rm -fv --

# build/ferrybox_VERSION_ARCH.deb. Packaging runs an install of its own, which would replace
# the install manifest of `make install`: that one is kept.
deb: build
	@cd build && if [ -e install_manifest.txt ]; then mv install_manifest.txt install_manifest.kept; fi; \
	cpack -G DEB; status=$$?; rm -f install_manifest.txt; \
	if [ -e install_manifest.kept ]; then mv install_manifest.kept install_manifest.txt; fi; \
	exit $$status

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
