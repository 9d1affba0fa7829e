// Keeping this computer awake for the app's power commands. logind's inhibitors
// ("sleep:idle", and "handle-lid-switch" when the app says this session may hold
// it) are taken by a systemd-inhibit child that lives as long as the hold: its
// inner command reads our pipe, so the hold ends when we end, whatever way we go.
// Every change is told in one line, "stay-awake {…}", the app's single source of
// truth; its texts are our own words, never a tool's output.
import { spawn } from 'node:child_process';
import { readFileSync } from 'node:fs';

const LONGEST_MINUTES = 525600; // a year
// Tests shorten a minute; nothing else should.
const MINUTE_MS = Number(process.env.ZUV_AWAKE_MINUTE_MS) || 60000;
const LONGEST_TIMER_MS = 2 ** 31 - 1; // what one setTimeout can wait

export class Power {
  constructor({ say, statusFile, toHub = () => {}, inhibit = 'systemd-inhibit', now = () => Date.now() }) {
    this.say = say;
    this.toHub = toHub;
    this.statusFile = statusFile;
    this.inhibit = inhibit;
    this.now = now;
    this.hold = null; // { child, what, held }
    this.endsAt = 0; // 0: until stopped
    this.error = null;
    this.timer = null;
  }

  // The lid may stay shut only when the app found that polkit allows it.
  lidAllowed() {
    try {
      const status = JSON.parse(readFileSync(this.statusFile, 'utf8'));
      return status && status.status === 'enabled';
    } catch {
      return false;
    }
  }

  handle(command) {
    switch (command.power) {
      case 'status':
        this.report();
        return;
      case 'allowSleep':
        this.error = null;
        this.release();
        this.report();
        return;
      case 'keepAwake':
        this.keepAwake(command.minutes);
        return;
      default:
        this.error = 'That power command is unknown.';
        this.report();
    }
  }

  keepAwake(minutes) {
    if (!Number.isSafeInteger(minutes) || minutes < 0 || minutes > LONGEST_MINUTES) {
      this.error = 'The length asked for is out of range.';
      this.report();
      return;
    }
    this.error = null;
    this.endsAt = minutes > 0 ? this.now() + minutes * MINUTE_MS : 0;
    this.schedule();
    const what = this.lidAllowed() ? 'sleep:idle:handle-lid-switch' : 'sleep:idle';
    if (this.hold && this.hold.what === what) {
      this.report(); // the same hold, a new end
      return;
    }
    this.release(false);
    this.take(what);
  }

  take(what) {
    let child;
    try {
      child = spawn(
        this.inhibit,
        [`--what=${what}`, '--who=Zuv', '--why=Keeping this computer reachable from your phone', '--mode=block',
          '/bin/sh', '-c', 'echo held; exec cat >/dev/null'],
        { stdio: ['pipe', 'pipe', 'ignore'] },
      );
    } catch {
      this.refused('This system cannot keep the computer awake: systemd-inhibit is missing.');
      return;
    }
    const hold = { child, what, held: false };
    this.hold = hold;
    child.stdin.on('error', () => {}); // a child that is gone reads nothing more
    child.stdout.on('data', (data) => {
      if (!hold.held && String(data).includes('held') && this.hold === hold) {
        hold.held = true;
        this.report();
      }
    });
    child.on('error', (error) => {
      if (this.hold !== hold) return;
      this.refused(error && error.code === 'ENOENT'
        ? 'This system cannot keep the computer awake: systemd-inhibit is missing.'
        : 'The hold on sleep could not start.');
    });
    child.on('exit', () => {
      if (this.hold !== hold) return; // released on purpose
      this.refused(hold.held ? 'The hold on sleep ended unexpectedly.' : 'logind refused to keep this computer awake.');
    });
  }

  refused(text) {
    this.hold = null;
    this.endsAt = 0;
    clearTimeout(this.timer);
    this.timer = null;
    this.error = text;
    this.report();
  }

  schedule() {
    clearTimeout(this.timer);
    this.timer = null;
    if (!this.endsAt) return;
    const wait = Math.max(0, this.endsAt - this.now());
    this.timer = setTimeout(() => {
      this.timer = null;
      if (this.now() < this.endsAt) {
        this.schedule(); // a long session waits in pieces
        return;
      }
      this.release();
      this.report();
    }, Math.min(wait, LONGEST_TIMER_MS));
  }

  release(clearEnd = true) {
    const hold = this.hold;
    this.hold = null;
    if (clearEnd) {
      this.endsAt = 0;
      clearTimeout(this.timer);
      this.timer = null;
    }
    if (!hold) return;
    hold.child.stdin.end();
    hold.child.kill('SIGTERM');
  }

  session() {
    const active = Boolean(this.hold && this.hold.held);
    const session = { active, display: true, lid: this.hold && this.hold.what.includes('lid') ? 'allowed' : 'sleeps' };
    if (active && this.endsAt) session.endsAt = this.endsAt;
    if (this.error) session.error = this.error;
    return session;
  }

  report() {
    // A hold still being taken is told once it holds, or once it fails.
    if (this.hold && !this.hold.held) return;
    const session = this.session();
    this.say(`stay-awake ${JSON.stringify(session)}`);
    this.toHub({ type: 'awake', session }); // the phone shows it too
  }

  stop() {
    this.release();
  }
}
