package vex.jni;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** How much of the machine's processor time this process and all others used since the last look. */
final class Processors {
    /** Shares of all processors, from 0 to 1. */
    record Use(double own, double others) {}

    private long total;
    private long idle;
    private long own;

    Processors() throws IOException {
        sinceLast();
    }

    Use sinceLast() throws IOException {
        String[] machine = Files.readAllLines(Path.of("/proc/stat")).get(0).trim().split("\\s+");
        String[] process = Files.readString(Path.of("/proc/self/stat")).split("\\) ")[1].split(" ");
        long ownNow = Long.parseLong(process[11]) + Long.parseLong(process[12]);
        long totalNow = 0;
        for (int i = 1; i <= 8; ++i) {  // what follows is part of the first two
            totalNow += Long.parseLong(machine[i]);
        }
        long idleNow = Long.parseLong(machine[4]) + Long.parseLong(machine[5]);
        double passed = Math.max(1, totalNow - total);
        double ownShare = (ownNow - own) / passed;
        Use use = new Use(ownShare, Math.max(0, 1 - (idleNow - idle) / passed - ownShare));
        total = totalNow;
        idle = idleNow;
        own = ownNow;
        return use;
    }
}
