#!/usr/bin/python3
"""Makes and measures Pelmora's USB filter lists.

  usb_lists.py generate [--usb-ids FILE] [--out FILE]   AndroidPIDBlack.ini from usb.ids
  usb_lists.py check    [--usb-ids FILE]                the shipped black list is reproduced
  usb_lists.py measure  [--usb-ids FILE] [--json]       coverage and false positives
  usb_lists.py vendors  [--usb-ids FILE]                per-vendor figures, to review AndroidVID.ini

The black list holds, for every vendor of AndroidVID.ini, the products usb.ids names as something
other than a phone or tablet (printers, modems, radios, storage, cameras, input devices, hubs...),
classified by the rules and overrides below. Products whose names say nothing either way stay off
it, and so do the pairs of the phone reference (phone-reference.csv) and of the white list.
"""

import argparse
import csv
import json
import os
import re
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
CONFIG = os.path.join(HERE, '..', '..', 'config')
REFERENCE = os.path.join(HERE, 'phone-reference.csv')
USB_IDS = '/usr/share/misc/usb.ids'
# The usb.ids the shipped black list was generated from (Debian 12's usb.ids package).
PINNED_PACKAGE = '2025.07.26-0+deb12u1'
PINNED_VERSION = '2025.07.26'

# Floors the shipped lists must hold (measure --json reports the figures).
COVERAGE_FLOOR = 0.95
FALSE_POSITIVE_CEILING = 0.03

# Names that say "not a phone". Checked before PHONE, so "LTE modem" is a modem and not a phone.
NON_PHONE = [
    ('printer', r'printer|laserjet|deskjet|officejet|photosmart|designjet|color ?jet|inkjet|'
                r'\bpsc\b|envy \d|\bmfp?\b|multi-?function|all-in-one|scanjet|scanner|fax|copier|'
                r'stylus|\bsp ?\d{3}|\bqms?\b|pixma|bizhub|aficio|ecosys|taskalfa|fs-\d|km-\d|'
                r'\bplotter|label ?writer|\bpos\b|receipt|thermal|printing|phaser|docuprint|'
                r'workcentre|\bml-\d|\bscx-|\bclp-|\bal-\d{4}|\bar-m?\d{3}|\bsn-\d{4}|\bmfc\d|'
                r'\bfi-\d'),
    ('modem', r'modem|\blte\b|\b[345]g\b|hspa|umts|gsm|cdma|wwan|mobile broadband|broadband|'
              r'\bqdl\b|qdloader|\bdiag\b|\bgobi|\bhs-?usb\b|e3\d{2,3}\b|\bk\d{4}\b|\bmf\d{3}\b|'
              r'datacard|data card|mobile connect|usb stick|e-?stick|dongle|\bnmea\b|gps|quectel|'
              r'anydata|zero ?cd'),
    ('radio', r'bluetooth|\bbt\b|wlan|wi-?fi|wireless|802\.11|\bwl\w*\b|ethernet|\blan\b|network|'
              r'\bnic\b|\bir\b|infrared|\brf\b|receiver|transceiver|\bzigbee|radio|\bdvb|\btv\b|'
              r'tuner|\bnfc\b|\btl-w|archer t\d|\brt\d{4}|realtek|my cinema'),
    ('storage', r'storage|flash|\bdisk\b|drive|\bhdd\b|\bssd\b|card ?reader|reader|\bsd\b|'
                r'memory|thumb|\bcd-?r|\bdvd|blu-?ray|\bzip\b|floppy|\bjaz\b|enclosure|\bsata\b|'
                r'\bide\b|\bmsc\b|\bums\b|cruzer|jump|hard ?disk|\bpssd\b|jmicron|datastation|'
                r'story station'),
    ('camera', r'camera|webcam|\bcam\b|cam\b|digital still|\bdsc\b|camcorder|handycam|video|'
               r'imaging|\bimage|cyber-?shot|coolpix|powershot|finepix|mavica|optio|\bdc-?\d|'
               r'\bptp\b.*camera|lifecam|eyetoy|photo'),
    ('input', r'keyboard|mouse|mice|trackball|touchpad|trackpoint|joystick|gamepad|game ?pad|'
              r'controller|\bhid\b|human interface|keypad|presenter|remote|tablet pc pen|'
              r'digitizer|pen\b|fingerprint|biometric|smart ?card|smartcard|token|\bccid\b|'
              r'barcode|\bscan|touch ?(screen|panel)|yubikey|\bu2f\b'),
    ('hub', r'\bhub\b|dock|port replicator|docking|switch|\bkvm\b'),
    ('audio', r'audio|headset|headphone|speaker|microphone|\bmic\b|sound|\bdac\b|\bmidi\b|'
              r'earphone|buds\b|soundbar'),
    ('display', r'monitor|display|\blcd\b|projector|\bvga\b|\bdvi\b|\bhdmi\b|video adapter|'
                r'\brift\b'),
    ('player', r'\bmp3\b|\bmp4\b|walkman|music player|media player|multimedia player|miniplayer|'
               r'\bipod\b|zune|\byp-|yepp|gmini|media assistant|netmd|e-?book|reader'),
    # Handhelds of other systems (Windows Mobile, BlackBerry OS, Symbian, Palm, Zaurus).
    ('other-os', r'\bpda\b|pocket ?pc|\bsync\b|palm|ipaq|jornada|windows mobile|\bwm\d|symbian|'
                 r'zaurus|blackberry (handheld|pearl)|^blackberry$'),
    ('computer', r'notebook|laptop|desktop|\bpc\b|chromebook|thinkpad|\bups\b|battery|charger|'
                 r'power ?supply|\bmcu\b|embedded|\bevb\b|evaluation|dev(elopment)? board|'
                 r'\bjtag\b|debugger|programmer|\buarts?\b|serial|\bttl\b|rs-?232|usb-serial|'
                 r'bridge|converter|adapter|controller|sensor|meter|tester|\bwatch\b|forerunner|'
                 r'fenix|edge \d|nuvi|oregon|etrex|\bgarmin\b|fitness|scale|medical|u-boot|'
                 r'\bl4t\b'),
]
# Names that say "a phone, a tablet or one of their USB modes".
PHONE = (r'android|phone|tablet|\btab\b|\bpad\b|\bmtp\b|\badb\b|fastboot|galaxy|nexus|pixel|'
         r'xperia|kindle|\bfire\b|nook|\brndis\b|tether|\bdebug\b|\bbootloader\b|sideload|'
         r'recovery|\bmoto\b|droid|\bmi \d|redmi|oneplus|\bhonor\b|\bnova\b|\bmate\b|'
         r'\bp\d0\b|\bzenfone|\bvivo\b|\boppo\b|\brealme\b|smart ?tv|\bshield\b|accessory|'
         r'remote ndis')

# A handset model in one of its USB modes ("A789 (Mass Storage mode)", "Nokia 8 (MIDI mode)"):
# a phone, unless the rest of the name is something else ("K3770 3G Modem (Mass Storage Mode)").
HANDSET_MODE = r'\((mass[- ]?storage|msc|camera|midi|ptp|pictbridge)( mode)?\)|in camera mode'

# Reviewed exceptions to the name rules: (vid, pid) -> category, or 'phone'.
OVERRIDES = {
    ('0502', '2008'): 'phone',   # Acer "Liquid Gallant Duo E350 (preloader)": not a Huawei E3xx modem
    ('0bb4', '0cae'): 'phone',   # HTC "T-Mobile MyTouch 4G Slide": the 4G is no modem
    ('0bb4', '0ffe'): 'phone',   # HTC "Desire HD (modem mode)": a phone in one of its modes
    ('18d1', '0001'): 'phone',   # "Onda V972 (storage access)": an Android tablet's storage mode
    ('18d1', '0008'): 'phone',   # "Onda V972 PTP (camera)": the same tablet's PTP mode
    ('2833', '0137'): 'phone',   # Oculus "Quest Headset": an Android device, not an audio headset
    ('04c5', '200f'): 'camera',  # Fujitsu "Sigma DP2 (Mass Storage)": a camera, not a handset
    ('04c5', '2010'): 'camera',  # Fujitsu "Sigma DP2 (PictBridge)"
    ('12d1', '1004'): 'modem',   # Huawei "E220 (bis)": its E-series USB modems by model alone
    ('12d1', '1406'): 'modem',   # Huawei "E1750"
    ('12d1', '140c'): 'modem',   # Huawei "E180v"
    ('12d1', '1412'): 'modem',   # Huawei "EC168c"
    ('12d1', '14ac'): 'modem',   # Huawei "E815"
    ('19d2', '0037'): 'modem',   # ZTE "ONDA MC503HSA"
    ('8087', '0a9e'): 'computer',  # Intel "Edison" compute module
    ('04c5', '10fe'): 'printer',   # Fujitsu "S500", a ScanSnap scanner
}


def parse_usb_ids(path):
    """(version, {vid: (vendor name, {pid: product name})}), IDs as 4 lower-case hex digits."""
    version, vendors, current = '', {}, None
    with open(path, encoding='utf-8', errors='replace') as f:
        for line in f:
            line = line.rstrip('\n')
            m = re.match(r'# Version: (\S+)', line)
            if m:
                version = m.group(1)
                continue
            if line.startswith('C ') or line.startswith('AT '):
                break  # the class tables follow the vendors
            m = re.match(r'([0-9a-f]{4})  (.*)', line)
            if m:
                current = (m.group(2), {})
                vendors[m.group(1)] = current
                continue
            m = re.match(r'\t([0-9a-f]{4})  (.*)', line)
            if m and current is not None:
                current[1][m.group(1)] = m.group(2)
    return version, vendors


def read_ini(name):
    """The key=number lines of a configuration file, as the library reads them."""
    lines = []
    with open(os.path.join(CONFIG, name), encoding='utf-8') as f:
        for line in f:
            m = re.match(r'^\s*([^=\s;][^=\s]*)\s*=\s*(\d+)\s*$', line)
            if m:
                lines.append((m.group(1), int(m.group(2))))
    return lines


def listed_vendors():
    vendors = {}
    for name, vid in read_ini('AndroidVID.ini'):
        vendors.setdefault('%04x' % vid, name)
    return vendors


def pid_lists(name, vendors):
    lists = {}
    for key, pid in read_ini(name):
        m = re.match(r'\d+', key)
        vid = '%04x' % int(m.group(0)) if m else None
        if vid in vendors:
            lists.setdefault(vid, set()).add('%04x' % pid)
    return lists


def read_reference():
    with open(REFERENCE, encoding='utf-8') as f:
        rows = csv.DictReader(line for line in f if not line.startswith('#'))
        return {(r['vid'], r['pid']): r['source'] for r in rows}


def classify(vid, pid, name, protected, overrides=OVERRIDES):
    """'phone', a non-phone category, or None when the name says nothing either way."""
    if (vid, pid) in overrides:
        return OVERRIDES[(vid, pid)]
    if (vid, pid) in protected:
        return 'phone'
    lower = name.lower()
    if re.search(HANDSET_MODE, lower):
        model = re.sub(HANDSET_MODE, '', lower)
        if not any(re.search(pattern, model) for _, pattern in NON_PHONE):
            return 'phone'
    for category, pattern in NON_PHONE:
        if re.search(pattern, lower) and not re.search(PHONE, lower):
            return category
    if re.search(PHONE, lower):
        return 'phone'
    return None


def black_list(usb_ids, vendors, protected):
    """[(vid, pid, usb.ids name)] in vendor-file order, then product ID order."""
    entries = []
    for vid in vendors:
        if vid not in usb_ids:
            continue
        for pid, name in sorted(usb_ids[vid][1].items()):
            category = classify(vid, pid, name, protected)
            if category not in (None, 'phone'):
                entries.append((vid, pid, name))
    return entries


def render_black_list(version, vendors, entries):
    out = ['; USB products of Android makers that are not Android devices. Generated by',
           '; tools/usb-lists/usb_lists.py from usb.ids version %s (Debian package usb.ids %s);'
           % (version, PINNED_PACKAGE),
           '; do not edit by hand: change the rules or overrides there and generate again.',
           '; Each entry is VendorID=ProductID in decimal, under a remark with the hex pair and the',
           "; product's usb.ids name. Only vendors of AndroidVID.ini count.", '']
    last = None
    for vid, pid, name in entries:
        if vid != last:
            if last:
                out.append('')
            out.append('; %s (0x%s)' % (vendors[vid], vid.upper()))
            last = vid
        out.append('; 0x%s:0x%s %s' % (vid, pid, name))
        out.append('%d=%d' % (int(vid, 16), int(pid, 16)))
    return '\n'.join(out) + '\n'


def load(usb_ids_path):
    version, usb_ids = parse_usb_ids(usb_ids_path)
    vendors = listed_vendors()
    white = pid_lists('AndroidPIDWhite.ini', vendors)
    reference = read_reference()
    protected = set(reference) | {(v, p) for v, pids in white.items() for p in pids}
    return version, usb_ids, vendors, white, reference, protected


def measure(usb_ids_path):
    version, usb_ids, vendors, white, reference, protected = load(usb_ids_path)
    black = pid_lists('AndroidPIDBlack.ini', vendors)

    def accepted(vid, pid):  # without an ADB question
        return vid in vendors and (pid in white.get(vid, ()) or pid not in black.get(vid, ()))

    phones_ok = sum(accepted(v, p) for v, p in reference)
    missed_vendors = sorted({v for v, p in reference if not accepted(v, p)})
    non_phones, non_phones_ok, by_category = 0, 0, {}
    for vid in vendors:
        for pid, name in usb_ids.get(vid, ('', {}))[1].items():
            # Measured by the name rules alone: a reviewed override does not excuse a product.
            category = classify(vid, pid, name, set(), overrides={})
            if category in (None, 'phone'):
                continue
            non_phones += 1
            ok = accepted(vid, pid)
            non_phones_ok += ok
            total, hit = by_category.get(category, (0, 0))
            by_category[category] = (total + 1, hit + ok)
    return {
        'usb_ids_version': version, 'vendors': len(vendors),
        'phone_pairs': len(reference), 'phone_pairs_accepted': phones_ok,
        'coverage': phones_ok / len(reference),
        'vendors_of_missed_pairs': missed_vendors,
        'non_phone_products': non_phones, 'non_phone_products_accepted': non_phones_ok,
        'false_positive_rate': non_phones_ok / max(non_phones, 1),
        'by_category': by_category,
    }


def installed_package_version():
    try:
        return subprocess.run(['dpkg-query', '-W', '-f=${Version}', 'usb.ids'], capture_output=True,
                              text=True, check=False).stdout.strip() or 'not installed'
    except OSError:
        return 'unknown (no dpkg-query)'


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('command', choices=['generate', 'check', 'measure', 'vendors'])
    parser.add_argument('--usb-ids', default=USB_IDS)
    parser.add_argument('--out', help='generate: write here instead of standard output')
    parser.add_argument('--json', action='store_true', help='measure: one JSON object')
    args = parser.parse_args()
    if not os.path.exists(args.usb_ids):
        sys.exit('usb.ids not found at %s: install Debian\'s usb.ids %s (scripts/setup.sh)'
                 % (args.usb_ids, PINNED_PACKAGE))

    if args.command in ('generate', 'check'):
        version, usb_ids, vendors, _, _, protected = load(args.usb_ids)
        text = render_black_list(version, vendors, black_list(usb_ids, vendors, protected))
        if args.command == 'generate':
            if args.out:
                with open(args.out, 'w', encoding='utf-8') as f:
                    f.write(text)
            else:
                sys.stdout.write(text)
            return 0
        with open(os.path.join(CONFIG, 'AndroidPIDBlack.ini'), encoding='utf-8') as f:
            shipped = f.read()
        if shipped == text:
            print('AndroidPIDBlack.ini reproduced from usb.ids %s' % version)
            return 0
        if version != PINNED_VERSION:
            print('usb.ids differs: %s is version %s (Debian package installed here: %s), the shipped '
                  'list was made from %s (package %s); install that package to reproduce it'
                  % (args.usb_ids, version or 'unknown', installed_package_version(), PINNED_VERSION,
                     PINNED_PACKAGE))
        else:
            print('AndroidPIDBlack.ini differs from what usb.ids %s gives: run "generate --out"' % version)
        return 1

    if args.command == 'measure':
        figures = measure(args.usb_ids)
        if args.json:
            print(json.dumps(figures, sort_keys=True))
        else:
            print('usb.ids %(usb_ids_version)s, %(vendors)d vendors' % figures)
            print('phones accepted without ADB: %d of %d (%.1f%%)' % (
                figures['phone_pairs_accepted'], figures['phone_pairs'], 100 * figures['coverage']))
            print('non-phones accepted: %d of %d (%.1f%%)' % (
                figures['non_phone_products_accepted'], figures['non_phone_products'],
                100 * figures['false_positive_rate']))
            for category, (total, hit) in sorted(figures['by_category'].items()):
                print('  %-9s %4d of %4d' % (category, hit, total))
            print('vendors of missed pairs: %s' % ' '.join(figures['vendors_of_missed_pairs']))
        ok = figures['coverage'] >= COVERAGE_FLOOR and figures['false_positive_rate'] <= FALSE_POSITIVE_CEILING
        return 0 if ok else 1

    _, usb_ids, vendors, _, reference, protected = load(args.usb_ids)
    vids = sorted(set(vendors) | {v for v, _ in reference})
    for vid in vids:
        products = usb_ids.get(vid, ('?', {}))
        cats = [classify(vid, p, n, protected) for p, n in products[1].items()]
        print('%s %-8s ref=%3d usbids=%3d phone=%3d non=%3d unknown=%3d  %s' % (
            vid, 'LISTED' if vid in vendors else '-', sum(v == vid for v, _ in reference),
            len(cats), cats.count('phone'), sum(c not in (None, 'phone') for c in cats),
            cats.count(None), products[0]))
    return 0


if __name__ == '__main__':
    sys.exit(main())
