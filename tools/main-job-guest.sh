# The main job as the VM shows it: the drives the library finds through
# ASPI, each disc's table of contents, a file and the disc's data read
# back through ASPI, and the test disc's image burned onto a blank DVD+R
# through ASPI and read back.
. /opt/kavo/disc.env
disc=/opt/kavo/disc.iso

echo
echo "libKavoASPI (32-bit, and 64-bit) on Linux $(uname -r): two CD drives on a virtio SCSI host, one"
echo "holding a test disc of $DISC_SECTORS sectors, the other empty; an ATAPI DVD drive"
echo "on a PIIX IDE controller holding the same disc; on the virtio SCSI host, DVD+R"
echo "writers holding blank discs (Linux's SCSI target emulating MMC drives, over iSCSI)."
echo
echo "== aspitool scan: host adapters and devices reached through ASPI"
aspitool scan | tee /tmp/scan || exit 1
drives=$(sed -n 's/^  \([0-9]*:[0-9]*:[0-9]*\)  .*/\1/p' /tmp/scan)
echo
echo "== the 64-bit aspitool scan, through the 64-bit library, compared with the 32-bit one"
/opt/kavo/bin64/aspitool scan > /tmp/scan64 || exit 1
if cmp -s /tmp/scan /tmp/scan64; then echo "  the same $(grep -c '^  [0-9]' /tmp/scan64) devices at the same addresses, line for line"
else diff /tmp/scan /tmp/scan64; exit 1; fi

# Progress goes to standard error, redrawn in place on a terminal such as
# this console: through a pipe it comes as plain lines, fit for a log.
readable="" blank=""
for drive in $drives; do
  if aspitool disc "$drive" 2> /dev/null | grep -q '^  status   blank$'; then blank="$blank $drive"; continue; fi
  echo
  echo "== aspitool toc $drive: table of contents"
  if aspitool toc "$drive"; then readable="$readable $drive"; fi
done

for drive in $readable; do
  echo
  echo "== aspitool read $drive $README_LBA 1: README.TXT ($README_SIZE bytes at LBA $README_LBA)"
  aspitool read "$drive" "$README_LBA" 1 | head -c "$README_SIZE"
  blocks=$((DATA_SIZE / 2048))
  echo
  echo "== aspitool read $drive $DATA_LBA $blocks: DATA.BIN ($DATA_SIZE bytes) compared with the disc image"
  aspitool read "$drive" "$DATA_LBA" "$blocks" /tmp/data.bin 2>&1 | cat
  through_aspi=$(md5sum < /tmp/data.bin | cut -d' ' -f1)
  from_image=$(dd if=$disc bs=2048 skip="$DATA_LBA" count="$blocks" 2>/dev/null | md5sum | cut -d' ' -f1)
  echo "  MD5 read through ASPI $through_aspi"
  echo "  MD5 of the disc image $from_image"
  [ "$through_aspi" = "$from_image" ] && echo "  identical" || { echo "  DIFFERENT"; exit 1; }
  rm -f /tmp/data.bin
done
[ -n "$readable" ] || { echo "no drive with a readable disc"; exit 1; }

# The burn, on the first writer with a blank disc.
set -- $blank
writer=$1
[ -n "$writer" ] || { echo "no drive with a blank disc"; exit 1; }
echo
echo "== blank discs in the drives$blank; aspitool disc $writer: before the burn"
aspitool disc "$writer" || exit 1
echo
echo "== aspitool write $writer $disc: the test disc's image burned onto it"
aspitool write "$writer" $disc 2>&1 | cat
echo
echo "== aspitool disc $writer: after the burn"
aspitool disc "$writer" || exit 1
echo
echo "== aspitool read $writer 0 $DISC_SECTORS: the burned disc read back, compared with the image"
aspitool read "$writer" 0 "$DISC_SECTORS" /tmp/burned.iso 2>&1 | cat
burned=$(md5sum < /tmp/burned.iso | cut -d' ' -f1)
from_image=$(md5sum < $disc | cut -d' ' -f1)
echo "  MD5 read from the burned disc $burned"
echo "  MD5 of the disc image         $from_image"
[ "$burned" = "$from_image" ] && echo "  identical" || { echo "  DIFFERENT"; exit 1; }
echo
