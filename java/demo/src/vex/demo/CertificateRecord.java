package vex.demo;

import java.util.ArrayList;
import java.util.List;

/** One record of the certificate list. Names are RFC 4514 text. */
record CertificateRecord(String serial, String fingerprint, String notBefore, String notAfter, String keyAlgorithm,
                         String subject, String issuer) {
    private static final int FIELDS = 7;

    static List<CertificateRecord> parseList(String list) throws DemoException {
        List<CertificateRecord> records = new ArrayList<>();
        if (list.isEmpty()) {
            return records;
        }
        for (String line : list.split("\r\n", -1)) {
            String[] fields = line.split(" ", -1);
            if (fields.length != FIELDS) {
                throw new DemoException("The certificate list has a record of " + fields.length + " fields, not "
                    + FIELDS + ": " + line);
            }
            records.add(new CertificateRecord(fields[0], fields[1], fields[2], fields[3], fields[4],
                restoreBlanks(fields[5]), restoreBlanks(fields[6])));
        }
        return records;
    }

    String describe() {
        return String.format("%s certificate of %s%n"
            + "    issued by    %s%n"
            + "    serial       %s%n"
            + "    valid        %s to %s%n"
            + "    SHA-256      %s",
            keyAlgorithm, subject, issuer, serial, notBefore, notAfter, fingerprint);
    }

    /** A name as people write it: "\20" is a blank. Other escapes stay. */
    private static String restoreBlanks(String name) {
        StringBuilder restored = new StringBuilder();
        for (int i = 0; i < name.length(); ++i) {
            if (name.startsWith("\\20", i)) {
                restored.append(' ');
                i += 2;
            } else if (name.charAt(i) == '\\' && i + 1 < name.length()) {
                // A pair, so that the second backslash of "\\20" does not begin another escape.
                restored.append(name, i, i + 2);
                ++i;
            } else {
                restored.append(name.charAt(i));
            }
        }
        return restored.toString();
    }
}
