# The daemon starts with the modules as they are now, or stops when there is no switch any more.
if [ -d /run/systemd/system ]; then
  systemctl daemon-reload || :
  systemctl restart ravd.service || :
fi
