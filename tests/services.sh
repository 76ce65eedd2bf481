#!/bin/bash
# services.sh TOOL UNITS MANUAL: what comes with the tool for systemd, shells and readers of manuals.
# UNITS is a directory of systemd units, MANUAL a manual page beside those that the tool prints.
for program in systemd-analyze mandoc zsh fish; do
    command -v "$program" >/dev/null || { echo "$program is not installed" && exit 77; }
done
cd "$(mktemp -d)" && mkdir pages && ln -s "$1" qxvrtp || exit 1
tool=$PWD/qxvrtp # without spaces, which a unit would have to quote
for unit in send receive relay monitor serve; do
    sed "s|=[^ ]*qxvrtp |=$tool |" "$2/qxvrtp-$unit@.service" >"qxvrtp-$unit@.service"
done
status=0
# A key that is unknown is only a warning.
systemd-analyze verify --man=no --recursive-errors=no ./*.service 2>&1 | grep . && status=1
"$tool" manual --directory pages && mandoc -Tlint -Wwarning pages/* "$3" || status=1

. <("$tool" completion bash)
"$tool" completion zsh | zsh -n || status=1
"$tool" completion fish >qxvrtp.fish
while read -r expected line; do
    read -ra COMP_WORDS <<<"$line"
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _qxvrtp
    by_fish=$(HOME=$PWD fish -c "source qxvrtp.fish; complete -C '$line'" | cut -f 1)
    [ "$expected $expected" = "${COMPREPLY[*]} $by_fish" ] && continue
    echo "$line: ${COMPREPLY[*]} by bash, $by_fish by fish"
    status=1
done <<'END'
send qxvrtp sen
show qxvrtp config sh
pages/qxvrtp.1 qxvrtp config check pages/qxvrtp.
--config qxvrtp send --conf
END
exit "$status"
