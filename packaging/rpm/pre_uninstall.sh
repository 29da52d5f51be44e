# Not before an upgrade, which leaves the old daemon running until the new one is there.
if [ "$1" -eq 0 ]; then
  [ ! -d /run/systemd/system ] || systemctl stop ravd.service || :
  systemctl --no-reload disable ravd.service || :
fi
