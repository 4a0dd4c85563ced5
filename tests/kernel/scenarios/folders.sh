# Sourced by run.sh: scenarios about trees, listings and names.

scenario_tree() {
    expect "mounted" mount_as a data || return
    expect "a tree is made in the guest's memory" guest 'probe tree /tmp/tree'
    expect "cp -r copies it" guest 'cp -r /tmp/tree /mnt/a/copy' || return
    expect_text "480 files arrived" 480 count_files copy
    expect "mounted again" remount a data || return
    expect "the copy equals the original" guest 'diff -r /tmp/tree /mnt/a/copy'
    [ "$size" = short ] || tar_and_rename
    expect "rm -rf removes everything" guest 'rm -rf /mnt/a/*'
    expect_text "nothing is left" "" ls "$work/data"
    expect "unmounted" unmount a data
}

tar_and_rename() {
    expect "tar packs and unpacks it" guest '
        mkdir /mnt/a/unpacked && tar -c -C /tmp/tree -f /mnt/a/tree.tar . && tar -x -C /mnt/a/unpacked -f /mnt/a/tree.tar'
    expect "mounted again" remount a data || return
    expect "what tar unpacked equals the original" guest 'diff -r /tmp/tree /mnt/a/unpacked'
    expect "checksums agree" checksums_agree
    expect "a folder is renamed, and found with all in it" guest '
        mv /mnt/a/copy /mnt/a/renamed && diff -r /tmp/tree /mnt/a/renamed'
}

count_files() {
    find "$work/data/$1" -type f | wc -l
}

scenario_save() {
    local times
    times=$(by_size 100 40)
    expect "mounted" mount_as a data || return
    expect "a text is saved $times times by rename" guest "times=$times;"'
        cd /mnt/a
        for i in $(seq $times); do
            echo "version $i" >text.new && mv text.new text && [ "$(cat text)" = "version $i" ] || exit
        done'
    expect_text "the host has the last version" "version $times" cat "$work/data/text"
    expect "a text is saved $times times with a backup" guest "times=$times;"'
        cd /mnt/a && echo "version 0" >doc
        for i in $(seq $times); do
            mv doc doc~ && echo "version $i" >doc && [ "$(cat doc doc~)" = "version $i
version $((i - 1))" ] || exit
        done'
    expect_text "the host has the last two" "version $times"$'\n'"version $((times - 1))" cat "$work/data/doc" "$work/data/doc~"
    expect "a file replaced while it is open is still the old one" guest '
        cd /mnt/a && echo old >open && exec 7<open && echo new >open.new && mv open.new open &&
        [ "$(cat <&7)" = old ] && [ "$(cat open)" = new ]'
    expect_text "nothing else is left" $'doc\ndoc~\nopen\ntext' ls "$work/data"
    expect "unmounted" unmount a data
}

scenario_folders() {
    local deep=a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q/r/s/t
    expect "mounted" mount_as a data || return
    expect "mkdir -p makes 20 folders in each other" guest "mkdir -p /mnt/a/$deep"
    expect "the host has them" test -d "$work/data/$deep"
    expect "a folder with something in it is not removed" fails guest 'rmdir /mnt/a/a'
    expect "it is still there" test -d "$work/data/$deep"
    expect "rmdir -p removes them" guest "cd /mnt/a && rmdir -p $deep"
    expect_text "the host has none of them" "" ls "$work/data"
    expect "folders are made and removed again and again" guest "times=$(by_size 100 30);"'
        cd /mnt/a && for i in $(seq $times); do mkdir -p x/y && echo $i >x/y/z && rm x/y/z && rmdir -p x/y || exit; done'
    expect_text "the host has none of them" "" ls "$work/data"
    expect "unmounted" unmount a data
}

scenario_names() {
    local long name names=(' leading blank' 'trailing blank ' '-rf' '*' "it's" '"quoted"' 'back\slash' $'two\nlines' '...'
        'Grüße' '日本語のファイル' '😀' $'\xff\xfe not UTF-8' '#x~')
    long=$(printf '%0255d' 0)
    names+=("$long" "${long:0:1}$(printf 'ü%.0s' {1..127})")
    expect "mounted" mount_as a data || return
    for name in "${names[@]}"; do
        expect "a file of this name is made, renamed and renamed back: $name" \
            guest "cd /mnt/a && echo ${#name} >./${name@Q} && mv ./${name@Q} between && mv between ./${name@Q}"
        expect_text "the host has it" "${#name}" cat "$work/data/$name"
    done
    expect "a name of 256 bytes is refused" fails guest "echo x >/mnt/a/0$long"
    expect "mounted again" remount a data || return
    expect "both sides list the same names" same_listing
    expect "all are removed" guest 'cd /mnt/a && rm -f -- * .[!.]* ..?*'
    expect_text "nothing is left" "" ls -A "$work/data"
    expect "unmounted" unmount a data
}

same_listing() {
    cmp <(guest 'find /mnt/a -mindepth 1' | sed 's|^/mnt/a/||' | LC_ALL=C sort) \
        <(cd "$work/data" && find . -mindepth 1 | sed 's|^\./||' | LC_ALL=C sort)
}

# make_files FOLDER COUNT PREFIX: small files, on the host.
make_files() {
    mkdir -p "$work/data/$1"
    (cd "$work/data/$1" && for ((i = 1; i <= $2; ++i)); do echo "$i" >"$3$i"; done)
}

scenario_remove_tree() {
    local count
    count=$(by_size 5000 2000)
    make_files many "$count" file
    expect "mounted" mount_as a data || return
    expect_text "the client counts them" "$count" guest 'ls /mnt/a/many | wc -l'
    expect "rm -rf removes them" guest 'rm -rf /mnt/a/many'
    expect_text "nothing is left" "" ls "$work/data"
    expect "unmounted" unmount a data
}

scenario_remove_listing() {
    local count
    count=$(by_size 3000 1000)
    make_files many "$count" file
    expect "mounted" mount_as a data || return
    expect_text "one pass removes each of them" "$count removed" guest 'probe remove-while-listing /mnt/a/many'
    expect_text "the folder is empty" "" ls "$work/data/many"
    expect "and can be removed" guest 'rmdir /mnt/a/many'
    expect "unmounted" unmount a data
}

# list_half AFTER NAME: the client lists the folder "many" into /tmp/NAME, and waits after so many entries.
list_half() {
    guest "rm -f /tmp/go /tmp/paused; probe list-with-pause /mnt/a/many $1 /tmp/paused /tmp/go >/tmp/$2 &
        while [ ! -e /tmp/paused ]; do usleep 50000; done"
}

# rest_of_list NAME: the client lists on to the end; then its list is in $work/NAME.
rest_of_list() {
    guest 'touch /tmp/go; while pidof probe >/dev/null; do usleep 50000; done' &&
        guest "cat /tmp/$1" | LC_ALL=C sort >"$work/$1"
}

# each_once PREFIX COUNT LIST: the list holds the files of this prefix, each once.
each_once() {
    diff <(for ((i = 1; i <= $2; ++i)); do echo "$1$i"; done | LC_ALL=C sort) <(grep "^$1" "$work/$3")
}

no_name_twice() {
    ! uniq -d "$work/$1" | grep .
}

# changed_visibly FOLDER: gives the exported folder a time of change that the client has not seen. Its cache goes by that
# time, which NFS clients are told in whole seconds: what changes twice within one may stay unseen.
changed_visibly() {
    while [ "$(date +%s)" -le "$(stat -c %Y "$work/data/$1")" ]; do sleep 0.05; done
    touch "$work/data/$1"
}

scenario_list() {
    local before stays goes comes
    stays=$(by_size 4000 1600) goes=$(by_size 1000 400) comes=$(by_size 500 200)
    expect "mounted" mount_as a data actimeo=0 || return
    for before in 200 $(by_size 2500 ''); do
        make_files many "$stays" stays
        make_files many "$goes" goes
        expect "the client lists the first $before entries" list_half "$before" list || return
        (cd "$work/data/many" && rm goes*)
        make_files many "$comes" comes
        expect "and then the rest" rest_of_list list || return
        expect "what was there all the time is listed once" each_once stays "$stays" list
        expect "no name is listed twice" no_name_twice list
        changed_visibly many
        expect_text "a new listing has what is there now" $((stays + comes)) guest 'ls /mnt/a/many | wc -l'
        rm -rf "$work/data/many"
    done
    expect "unmounted" unmount a data
}
