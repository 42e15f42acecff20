# The front door. Every target installs what it lacks (scripts/install-deps) and says what it does.
PREFIX ?= /usr/local
SECONDS ?= 60
BUILD := build
JOBS ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu)

.PHONY: all demo test asan soak bench bench-plots fuzz install uninstall package format format-check check-tree lint clean

all:
	@scripts/install-deps build
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j$(JOBS)

demo: all
	@scripts/demo $(BUILD)/release

# The budgets are held against the release build.
test: all
	@scripts/install-deps build test
	@cmake --preset dev >/dev/null
	@cmake --build --preset dev -j$(JOBS)
	@ctest --preset dev -j$(JOBS)

asan:
	@scripts/install-deps build test
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j$(JOBS)
	@ctest --preset asan -j$(JOBS)

soak:
	@scripts/install-deps build test
	@cmake --preset dev >/dev/null
	@cmake --build --preset dev -j$(JOBS) --target quib-hook-soak
	@$(BUILD)/dev/Tests/quib-hook-soak

bench bench-plots:
	@scripts/install-deps build bench
	@cmake --preset bench >/dev/null
	@cmake --build --preset bench -j$(JOBS) --target event-costs transcript-speed
	@scripts/bench $@ $(BUILD)/bench

fuzz:
	@scripts/install-deps build fuzz
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j$(JOBS)
	@scripts/fuzz $(BUILD)/fuzz $(SECONDS)

install: all
	@cmake --install $(BUILD)/release --prefix "$(PREFIX)"

uninstall:
	@sed 's/.*/Removing &/' $(BUILD)/release/install_manifest.txt
	@xargs -d '\n' rm -f < $(BUILD)/release/install_manifest.txt

package: all
	@scripts/install-deps package
	@cd $(BUILD)/release && cpack --config CPackConfig.cmake
	@ls $(BUILD)/release/*.deb

format:
	@scripts/install-deps lint
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

format-check:
	@scripts/install-deps lint
	@git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror

check-tree:
	@scripts/install-deps lint
	@scripts/check-tree

lint: format-check check-tree
	@scripts/install-deps build test lint
	@cmake --preset dev >/dev/null
	@git ls-files 'Hook/*.cpp' 'Shared/*.cpp' 'Platform/*.cpp' 'Server/*.cpp' | \
	  xargs -P $(JOBS) -n 1 clang-tidy -p $(BUILD)/dev --quiet

clean:
	@rm -rf $(BUILD)
