#!/usr/bin/env bash
# Installs the Debian packages the agent needs. Usage: setup.sh [build] [test] [bench] [package]
# Quick when everything is there already; asks apt only for what is missing.
set -euo pipefail

build_packages=(g++ cmake ninja-build pkg-config qt6-base-dev qt6-base-dev-tools libgl-dev libssl-dev libpam0g-dev
                libxcb1-dev libxcb-randr0-dev qtkeychain-qt6-dev libavahi-client-dev qt6-svg-dev polkitd libqt6svg6
                libxcb-xtest0-dev libxcb-xkb-dev libxkbcommon-x11-dev
                libxcb-shm0-dev libxcb-damage0-dev libxcb-xfixes0-dev libxcb-xinput-dev libzstd-dev libturbojpeg0-dev zlib1g-dev)
test_packages=(openssl clang-format python3 python3-cbor2 procps clang-14 libclang-rt-14-dev dbus-daemon xvfb x11-utils
               xdotool xclip gnome-keyring desktop-file-utils avahi-daemon avahi-utils iproute2
               haskell-gtk-sni-tray-utils libglib2.0-bin qt6-qpa-plugins python3-pil
               at-spi2-core python3-pyatspi gir1.2-atspi-2.0 imagemagick x11-xkb-utils
               python3-zstandard x11-apps x11-xserver-utils acl)
bench_packages=(prometheus-node-exporter openssh-server openssh-client linux-perf
                gcc libx11-dev libxext-dev xfonts-base python3-numpy python3-zstandard x11vnc tigervnc-scraping-server)
package_packages=(build-essential debhelper lintian debootstrap man-db systemd ccache librsvg2-bin)

wanted=()
for group in "$@"; do
    case "$group" in
        build) wanted+=("${build_packages[@]}") ;;
        test) wanted+=("${test_packages[@]}") ;;
        bench) wanted+=("${bench_packages[@]}") ;;
        package) wanted+=("${package_packages[@]}") ;;
        *) echo "setup.sh: unknown group '$group' (use build, test, bench, package)" >&2; exit 2 ;;
    esac
done

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    as_root=(sudo)
fi
need_root() {
    if [ ${#as_root[@]} -gt 0 ] && ! command -v sudo >/dev/null; then
        echo "setup.sh: run as root or install sudo to $1" >&2
        exit 1
    fi
}

missing=()
for package in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    need_root "add: ${missing[*]}"
    echo "setup.sh: installing ${missing[*]}"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
for group in "$@"; do
    case "$group" in
        build)
            # The PAM service viewers sign in through (the agent falls back to "login" without it).
            if ! cmp -s "$root/data/pam/tellwyn-agent" /etc/pam.d/tellwyn-agent; then
                need_root "install /etc/pam.d/tellwyn-agent"
                echo "setup.sh: installing /etc/pam.d/tellwyn-agent"
                "${as_root[@]}" install -m 0644 "$root/data/pam/tellwyn-agent" /etc/pam.d/tellwyn-agent
            fi
            # The polkit action behind "Forgot Password…": an administrator opens the menu lock.
            policy=/usr/share/polkit-1/actions/com.brevane.tellwynagent.policy
            if ! cmp -s "$root/data/polkit/com.brevane.tellwynagent.policy" "$policy"; then
                need_root "install $policy"
                echo "setup.sh: installing $policy"
                "${as_root[@]}" install -m 0644 "$root/data/polkit/com.brevane.tellwynagent.policy" "$policy"
            fi
            ;;
        test)
            # An account for the sign-in tests: no home, no login shell, a password the tests know
            # (tests/integration/accounts.py). The agent runs as this account in those tests.
            if ! id tellwyn-test >/dev/null 2>&1 || [ ! -e /etc/tellwyn-test-account ]; then
                need_root "create the test account tellwyn-test"
                echo "setup.sh: creating the test account tellwyn-test"
                id tellwyn-test >/dev/null 2>&1 || "${as_root[@]}" useradd --system --no-create-home \
                    --home-dir /nonexistent --shell /usr/sbin/nologin tellwyn-test
                echo 'tellwyn-test:Tellwyn-Test-Passw0rd' | "${as_root[@]}" chpasswd
                echo "test account of TellwynAgent's sign-in tests" | "${as_root[@]}" tee /etc/tellwyn-test-account >/dev/null
            fi
            # The tests run the agent and some of their helpers as tellwyn-test, from this tree, which
            # may sit in a private home (Debian 12 makes homes 0700): the account gets, by ACL, the
            # right to pass through the folders above the tree and to read the tree. Nothing else
            # changes for anyone else.
            if ! "${as_root[@]}" setpriv --reuid=tellwyn-test --regid=tellwyn-test --clear-groups \
                test -r "$root/CMakeLists.txt"; then
                need_root "let tellwyn-test read $root"
                echo "setup.sh: letting the test account tellwyn-test read $root (ACL)"
                folder="$root"
                while [ "$folder" != / ]; do
                    folder="$(dirname "$folder")"
                    "${as_root[@]}" setpriv --reuid=tellwyn-test --regid=tellwyn-test --clear-groups test -x "$folder" ||
                        "${as_root[@]}" setfacl -m u:tellwyn-test:x "$folder"
                done
                "${as_root[@]}" setfacl -R -m u:tellwyn-test:rX -m d:u:tellwyn-test:rX "$root"
            fi
            # A polkit rule that lets the polkit test answer the unlock action yes or no; it does
            # nothing unless the test's folder /run/tellwyn-polkit-test exists.
            rule=/etc/polkit-1/rules.d/49-tellwyn-test.rules
            if ! cmp -s "$root/tests/integration/polkit/49-tellwyn-test.rules" "$rule"; then
                need_root "install $rule"
                echo "setup.sh: installing $rule"
                "${as_root[@]}" install -m 0644 "$root/tests/integration/polkit/49-tellwyn-test.rules" "$rule"
            fi
            # A PAM service that refuses by remote host, for the test of what the agent tells PAM.
            if ! cmp -s "$root/tests/integration/pam/tellwyn-test-by-host" /etc/pam.d/tellwyn-test-by-host; then
                need_root "install /etc/pam.d/tellwyn-test-by-host"
                "${as_root[@]}" install -m 0644 "$root/tests/integration/pam/tellwyn-test-by-host" \
                    /etc/pam.d/tellwyn-test-by-host
            fi
            ;;
    esac
done
