#!/usr/bin/env bash
# Builds the Debian packages, checks them with lintian, and installs them the way a user would
# (apt install ./….deb) into a fresh Debian root: the installed agent runs as an ordinary account
# and the installed viewer signs in to it; an upgrade keeps the settings, the TLS identity and the
# pinned agents; purging leaves nothing of ours behind. Also renders the manual pages and verifies
# the systemd user unit. Needs root (chroot, mounts). Work folder: build/package.
set -euo pipefail
if [ "$(id -u)" -ne 0 ]; then exec sudo "$0" "$@"; fi
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
work="$root/build/package"
chroot_dir="$work/root"
base_tar="$work/bookworm-minbase.tar" # debootstrap's result, kept between runs
apt_cache="$work/apt-archives"        # Debian's packages, kept between runs
account=tellwyn-user
password='Packaged-Agent-Passw0rd'
deadline=60 # seconds for the agent to come up on a loaded machine

fail() {
    echo "test-packages: FAIL: $*" >&2
    exit 1
}
step() { echo "test-packages: $*"; }

cleanup() {
    set +e
    [ -n "${agent_pid:-}" ] && kill "$agent_pid" 2>/dev/null && wait "$agent_pid" 2>/dev/null
    if mountpoint -q "$chroot_dir" 2>/dev/null; then
        umount -R "$chroot_dir"
    fi
    if grep -q " $chroot_dir[/ ]" /proc/mounts; then
        echo "test-packages: $chroot_dir is still mounted; left in place" >&2
        return
    fi
    [ -d "$chroot_dir" ] && rm -rf --one-file-system "$chroot_dir"
}
trap cleanup EXIT

# --- Build: the current version, then the same build repackaged as an earlier version. -------
mkdir -p "$work" "$apt_cache"
version="$(dpkg-parsechangelog -l "$root/debian/changelog" -S Version)"
if [ -z "${TELLWYN_PACKAGES_REUSE:-}" ]; then # set: test the packages of the last run again
    rm -rf "$work/src" "$work/current" "$work/previous" "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo
    mkdir -p "$work/src" "$work/current" "$work/previous"
    git -C "$root" ls-files -co --exclude-standard -z | tar -C "$root" --null -T - -cf - | tar -xf - -C "$work/src"
    # ccache through its compiler links; dh gives the build a HOME of its own, so say where the cache is.
    export PATH="/usr/lib/ccache:$PATH" CCACHE_DIR="${CCACHE_DIR:-$(ccache -k cache_dir)}" CCACHE_BASEDIR="$work/src"
    step "building $version"
    (cd "$work/src" && dpkg-buildpackage -b -us -uc >"$work/build.log" 2>&1) || {
        tail -40 "$work/build.log"
        fail "dpkg-buildpackage"
    }
    mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$work/current/"
    (cd "$work/src" && sed -i "1s/($version)/($version~previous)/" debian/changelog &&
        dpkg-buildpackage -b -us -uc -nc >"$work/build-previous.log" 2>&1) || fail "building the previous version"
    mv "$work"/*.deb "$work/previous/"
    rm -f "$work"/*.changes "$work"/*.buildinfo
fi

step "lintian"
lintian --fail-on error,warning --info "$work/current/"*.changes ||
    fail "lintian"

# --- What needs only the packages' files. -----------------------------------------------------
contents="$work/contents"
rm -rf "$contents"
for deb in "$work/current/"*.deb; do dpkg-deb -x "$deb" "$contents"; done
for page in tellwyn-agent tellwyn; do
    warnings="$(MANWIDTH=80 man --warnings -l "$contents/usr/share/man/man1/$page.1.gz" 2>&1 >/dev/null)"
    [ -z "$warnings" ] || fail "man page $page.1 renders with warnings: $warnings"
done
unit="$contents/usr/lib/systemd/user/tellwyn-agent.service"
grep -qx 'ExecStart=/usr/bin/tellwyn-agent --headless --start' "$unit" || fail "unit does not start /usr/bin's agent"
# The desktop entry's icon in the icon theme, and the polkit action the agent asks for.
icon="$(sed -n 's/^Icon=//p' "$contents/usr/share/applications/tellwyn-agent.desktop")"
for size in scalable 16x16 48x48 256x256; do
    ls "$contents/usr/share/icons/hicolor/$size/apps/$icon".* >/dev/null 2>&1 || fail "no $size icon named $icon"
done
action="$(grep -o '"com\.brevane\.tellwynagent\.[a-z]*"' "$root/ui/tray/administrator_authorization.h" | head -1)"
grep -q "<action id=$action>" "$contents/usr/share/polkit-1/actions/com.brevane.tellwynagent.policy" ||
    fail "the polkit action $action is not installed"
# The unit, with the unpacked agent in place of /usr/bin's and the unpacked manual pages for its
# Documentation=, against a runtime folder of its own (there is no user session here).
verify_dir="$work/verify"
rm -rf "$verify_dir" && mkdir -m 0700 -p "$verify_dir"
sed "s|^ExecStart=/usr/bin/|ExecStart=$contents/usr/bin/|" "$unit" >"$verify_dir/tellwyn-agent.service"
verify_output="$(MANPATH="$contents/usr/share/man" XDG_RUNTIME_DIR="$verify_dir" \
    systemd-analyze --user verify "$verify_dir/tellwyn-agent.service" 2>&1)" || fail "unit: $verify_output"
[ -z "$verify_output" ] || fail "systemd-analyze --user verify: $verify_output"

# --- A fresh Debian root. ---------------------------------------------------------------------
if [ ! -s "$base_tar" ]; then
    step "debootstrap (once; kept as $base_tar)"
    rm -rf --one-file-system "$work/bootstrap"
    debootstrap --variant=minbase bookworm "$work/bootstrap" "$(awk '/^URIs:/ {print $2; exit}' \
        /etc/apt/sources.list.d/debian.sources 2>/dev/null || echo http://deb.debian.org/debian)" >"$work/debootstrap.log"
    tar -C "$work/bootstrap" -cf "$base_tar" .
    rm -rf --one-file-system "$work/bootstrap"
fi
cleanup
mkdir -p "$chroot_dir"
tar -C "$chroot_dir" -xf "$base_tar"
mount --bind "$chroot_dir" "$chroot_dir"
mount --make-private "$chroot_dir"
mount -t proc proc "$chroot_dir/proc"
mount --bind /dev "$chroot_dir/dev"
mount --bind /sys "$chroot_dir/sys"
mount --bind "$apt_cache" "$chroot_dir/var/cache/apt/archives"
cp /etc/resolv.conf "$chroot_dir/etc/resolv.conf"
mkdir -p "$chroot_dir/tmp/debs"
cp -r "$work/current" "$work/previous" "$chroot_dir/tmp/debs/"

deb_of() { echo "/tmp/debs/$1/$(basename "$work/$1/$2"_*.deb)"; } # the package's file inside the root
in_root() { chroot "$chroot_dir" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
user_command=(chroot --userspec="$account:$account" "$chroot_dir" env -i PATH=/usr/bin:/bin LC_ALL=C.UTF-8
              HOME="/home/$account" USER="$account")
as_user() { "${user_command[@]}" "$@"; }
agent_log="$work/agent.log"
start_agent() { # extra arguments go to the agent
    : >"$agent_log"
    "${user_command[@]}" /usr/bin/tellwyn-agent --headless --start --listen 127.0.0.1 "$@" >"$agent_log" 2>&1 &
    agent_pid=$!
    local waited=0
    until grep -q 'Remote service running on port' "$agent_log"; do
        kill -0 "$agent_pid" 2>/dev/null || fail "the agent ended: $(cat "$agent_log")"
        ((waited++ < deadline * 5)) || fail "the agent did not start within $deadline s: $(cat "$agent_log")"
        sleep 0.2
    done
}
stop_agent() {
    kill -TERM "$agent_pid"
    wait "$agent_pid" || fail "the agent ended with status $? on SIGTERM"
    agent_pid=
}
fingerprint() { sed -n 's/.*fingerprint (SHA-256): \([0-9A-F:]*\).*/\1/p' "$agent_log" | head -1; }
sign_in() { # status of `tellwyn stats` with the given password
    local status=0
    printf '%s\n' "$1" | as_user /usr/bin/tellwyn stats "127.0.0.1:$port" -u "$account" --password-stdin \
        --json >"$work/stats.out" 2>&1 || status=$?
    echo "$status"
}

step "installing the previous version into a fresh root"
in_root apt-get update -qq >/dev/null
in_root apt-get install -y -qq --no-install-recommends "$(deb_of previous tellwyn-agent)" \
    "$(deb_of previous tellwyn)" >"$work/apt-install.log" 2>&1 || fail "apt install: $(tail -20 "$work/apt-install.log")"
[ "$(in_root dpkg-query -W -f='${Version}' tellwyn-agent)" = "$version~previous" ] || fail "previous version not installed"
in_root dpkg-query -W -f='${Conffiles}' tellwyn-agent | grep -q '/etc/pam.d/tellwyn-agent' ||
    fail "/etc/pam.d/tellwyn-agent is not a conffile"
# Only the agent's own PAM service can let a viewer in: the fallbacks refuse everyone.
printf 'auth requisite pam_deny.so\naccount requisite pam_deny.so\n' | tee "$chroot_dir/etc/pam.d/login" \
    >"$chroot_dir/etc/pam.d/other"
in_root useradd --create-home --shell /bin/bash "$account"
echo "$account:$password" | in_root chpasswd

# Every option the programs offer is in their manual pages.
for option in $(as_user /usr/bin/tellwyn-agent --help | grep -o -- '--[a-z-]*' | sort -u); do
    zcat "$contents/usr/share/man/man1/tellwyn-agent.1.gz" | grep -q -- "${option//-/\\\\-}" ||
        fail "tellwyn-agent.1 lacks $option"
done
for command in connect stats watch clip send discover; do
    for option in $(as_user /usr/bin/tellwyn "$command" --help | grep -o -- '--[a-z-]*' | sort -u); do
        zcat "$contents/usr/share/man/man1/tellwyn.1.gz" | grep -q -- "${option//-/\\\\-}" ||
            fail "tellwyn.1 lacks $option of $command"
    done
done

port="$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')"
step "the installed agent as $account on port $port; the installed viewer signs in"
start_agent --port "$port"
first_fingerprint="$(fingerprint)"
[ -n "$first_fingerprint" ] || fail "no fingerprint logged"
[ "$(sign_in "$password")" = 0 ] || fail "sign-in with the account's password failed: $(cat "$work/stats.out")"
grep -q '"agentVersion"' "$work/stats.out" || fail "no statistics record: $(cat "$work/stats.out")"
[ "$(sign_in wrong-password)" = 6 ] || fail "a wrong password was not refused: $(cat "$work/stats.out")"
stop_agent
home="$chroot_dir/home/$account"
kept_files=(.config/tellwyn-agent/tellwyn-agent.conf .local/share/tellwyn-agent/identity-key.pem
            .local/share/tellwyn-agent/identity-cert.pem .config/tellwyn/known_agents)
grep -q "127.0.0.1:$port $first_fingerprint" "$home/.config/tellwyn/known_agents" || fail "the agent was not pinned"
before="$(cd "$home" && sha256sum "${kept_files[@]}")"

step "upgrading to $version"
in_root apt-get install -y -qq --no-install-recommends "$(deb_of current tellwyn-agent)" "$(deb_of current tellwyn)" \
    >>"$work/apt-install.log" 2>&1 || fail "apt upgrade: $(tail -20 "$work/apt-install.log")"
[ "$(in_root dpkg-query -W -f='${Version}' tellwyn-agent)" = "$version" ] || fail "not upgraded"
[ "$(cd "$home" && sha256sum "${kept_files[@]}")" = "$before" ] || fail "the upgrade changed the user's files"
start_agent # no --port: the stored port must be used
[ "$(fingerprint)" = "$first_fingerprint" ] || fail "the identity changed over the upgrade"
[ "$(sign_in "$password")" = 0 ] || fail "sign-in after the upgrade failed: $(cat "$work/stats.out")"
stop_agent

step "removing and purging"
in_root apt-get remove -y -qq tellwyn-agent tellwyn >>"$work/apt-install.log" 2>&1
[ -e "$chroot_dir/etc/pam.d/tellwyn-agent" ] || fail "remove took the PAM conffile (only purge should)"
in_root apt-get purge -y -qq tellwyn-agent tellwyn >>"$work/apt-install.log" 2>&1
left="$(cd "$chroot_dir" && find . -xdev \( -path ./home -o -path ./tmp -o -path ./var/cache/apt \) -prune -o \
    -iname '*tellwyn*' -print)"
[ -z "$left" ] || fail "left after purge: $left"
while read -r path; do
    [ -d "$contents/$path" ] || [ ! -e "$chroot_dir/$path" ] || fail "left after purge: $path"
done < <(cd "$contents" && find . -mindepth 1)
[ -e "$home/.local/share/tellwyn-agent/identity-key.pem" ] || fail "purge removed the user's data"

step "passed"
