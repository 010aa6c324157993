#!/bin/sh
# The agent's SELinux policy: it compiles against a small base (sepolicy/base, which declares what a platform has), grants
# nothing that sepolicy/limits forbids, and labels what the agent installs and makes. Status 77: checkpolicy is missing.
set -u
cd "$(dirname "$0")/../.." || exit 1
for tool in checkpolicy m4; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is missing" && exit 77; }
done
base=tests/docs/sepolicy
policy=etc/sepolicy
scratch=$(mktemp -d) || exit 1
trap 'rm -rf "$scratch"' EXIT
failed=0

complain() {
    echo "$1"
    failed=1
}

# compile RULES: the base with these rules as a binary policy.
compile() {
    m4 "$base/macros" "$base/base" "$1" "$base/limits" "$base/end" "$policy/genfs_contexts" |
        sed '/^$/d' >"$scratch/policy.conf" && checkpolicy -M -o "$scratch/policy" "$scratch/policy.conf" >"$scratch/said" 2>&1
}

compile "$policy/zr_qel_sa.te" || { cat "$scratch/said" && complain "the policy does not compile"; }

# refuses WHAT RULE: the rule added to the policy does not compile, which shows that the test can fail.
refuses() {
    { cat "$policy/zr_qel_sa.te" && echo "$2"; } >"$scratch/added.te"
    ! compile "$scratch/added.te" || complain "$1 would not be noticed"
}
refuses "an unknown type" 'allow zr_qel_sa no_such_type:file read;'
refuses "tracing other processes" 'allow zr_qel_sa init:process ptrace;'
refuses "another domain on the terminals" 'allow logd zr_qel_sa_devpts:chr_file read;'

# Every label is a declared type of the agent's.
for file in file_contexts property_contexts genfs_contexts; do
    for type in $(grep -oE 'u:object_r:[a-z_]+:s0' "$policy/$file" | cut -d: -f3 | sort -u); do
        grep -qE "^type $type," "$policy/zr_qel_sa.te" || complain "$file names $type, which the policy does not declare"
    done
done

# label_of PATH: the last row that matches the whole path, as on a device.
label_of() {
    while read -r pattern label; do
        ! printf '%s\n' "$1" | grep -qxE "$pattern" || printf '%s\n' "$label"
    done <"$policy/file_contexts" | tail -n 1 | cut -d: -f3
}

# labelled TYPE PATH...
labelled() {
    type=$1
    shift
    for path in "$@"; do
        [ "$(label_of "$path")" = "$type" ] || complain "$path has the label '$(label_of "$path")', not $type"
    done
}
labelled zr_qel_sa_exec /system/bin/zr-qel-sa
labelled zr_qel_sa_log_file /data/local/log /data/local/log/sa.log.1 /data/log/SystemLog/dmesg.log
labelled zr_qel_sa_data_file /data/zr-qel-sa/auto-start.lst /data/zr-qel-sa.set /data/local.prop /data/.protect/a \
    /data/dontpanic/apanic_console
labelled "" /system/bin/sh /data/local/tmp/tcpdump /data/localXprop
exit "$failed"
