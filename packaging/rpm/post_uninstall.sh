if [ -d /run/systemd/system ]; then
  systemctl daemon-reload || :
  [ "$1" -eq 0 ] || systemctl try-restart ravd.service || :
fi
