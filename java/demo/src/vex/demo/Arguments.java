package vex.demo;

import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import vex.jni.TAVClientJNI;

/** The demo's command line. */
class Arguments {
    static final String USAGE = String.join(System.lineSeparator(),
        "Usage: java -jar tavclientjni-demo.jar [option...] [text]",
        "",
        "Signs a text in every way there is, writes the signatures to files and verifies them.",
        "Without a text, or with \"-\" for it, standard input is signed; its line ends belong to it.",
        "",
        "  --file FILE          sign a file, a UTF-8 text unless --base64 or --binary says otherwise",
        "  --base64             the input is Base64; sign the bytes it stands for",
        "  --binary             sign the bytes of the file or standard input as they are",
        "  --store URI          the certificate store (default: demo:), for example",
        "                       file:/home/me/keys.p12?pin-source=file:/home/me/pin",
        "  --digest NAME        the digest algorithm (default: SHA256)",
        "  --filter TYPE=VALUE  sign with a certificate that passes, for example key-algorithm=EC; may be given several",
        "                       times. Types: issuer, subject, serial, fingerprint, key-usage, key-algorithm,",
        "                       key-usage-all, extended-key-usage, valid-at, policy, key-size, subject-name, issuer-name",
        "  --out DIR            where to write (default: signing-demo); files there are replaced",
        "  --help               show this",
        "",
        "Exit status: 0 when all signatures were made and verified, 1 on failure, 2 when the command line is wrong.");

    private static final Map<String, Long> FILTER_TYPES = Map.ofEntries(
        Map.entry("issuer", TAVClientJNI.FILTER_ISSUER),
        Map.entry("subject", TAVClientJNI.FILTER_SUBJECT),
        Map.entry("serial", TAVClientJNI.FILTER_SERIAL),
        Map.entry("fingerprint", TAVClientJNI.FILTER_FINGERPRINT),
        Map.entry("key-usage", TAVClientJNI.FILTER_KEY_USAGE),
        Map.entry("key-algorithm", TAVClientJNI.FILTER_KEY_ALGORITHM),
        Map.entry("key-usage-all", TAVClientJNI.FILTER_KEY_USAGE_ALL),
        Map.entry("extended-key-usage", TAVClientJNI.FILTER_EXTENDED_KEY_USAGE),
        Map.entry("valid-at", TAVClientJNI.FILTER_VALID_AT),
        Map.entry("policy", TAVClientJNI.FILTER_POLICY),
        Map.entry("key-size", TAVClientJNI.FILTER_KEY_SIZE),
        Map.entry("subject-name", TAVClientJNI.FILTER_SUBJECT_NAME),
        Map.entry("issuer-name", TAVClientJNI.FILTER_ISSUER_NAME));

    record Filter(long type, String value) {}

    enum Form { TEXT, BASE64, BINARY }

    boolean help;
    Form form = Form.TEXT;
    String store = "demo:";
    String digest = "SHA256";
    final List<Filter> filters = new ArrayList<>();
    Path out = Path.of("signing-demo");

    /** The input: a text, else a file, else (both null) standard input. */
    String text;
    Path file;

    static Arguments parse(String[] args) throws DemoException.Usage {
        Arguments parsed = new Arguments();
        List<String> operands = new ArrayList<>();
        for (int i = 0; i < args.length; ++i) {
            switch (args[i]) {
                case "--help" -> parsed.help = true;
                case "--base64" -> parsed.setForm(Form.BASE64);
                case "--binary" -> parsed.setForm(Form.BINARY);
                case "--file" -> parsed.file = path(value(args, ++i));
                case "--store" -> parsed.store = value(args, ++i);
                case "--digest" -> parsed.digest = value(args, ++i);
                case "--filter" -> parsed.filters.add(parseFilter(value(args, ++i)));
                case "--out" -> parsed.out = path(value(args, ++i));
                case "--" -> {
                    operands.addAll(List.of(args).subList(i + 1, args.length));
                    i = args.length;
                }
                default -> {
                    if (args[i].startsWith("-") && !args[i].equals("-")) {
                        throw new DemoException.Usage("Unknown option " + args[i]);
                    }
                    operands.add(args[i]);
                }
            }
        }
        parsed.setInput(operands);
        return parsed;
    }

    private void setForm(Form wanted) throws DemoException.Usage {
        if (form != Form.TEXT && form != wanted) {
            throw new DemoException.Usage("--base64 and --binary exclude each other");
        }
        form = wanted;
    }

    private void setInput(List<String> operands) throws DemoException.Usage {
        if (operands.size() > 1) {
            throw new DemoException.Usage("More than one text; put quotation marks around it");
        }
        if (operands.isEmpty()) {
            return;
        }
        if (file != null) {
            throw new DemoException.Usage("Both a file and a text");
        }
        if (operands.get(0).equals("-")) {
            return;
        }
        if (form == Form.BINARY) {
            throw new DemoException.Usage("--binary is for a file or standard input");
        }
        text = operands.get(0);
    }

    private static String value(String[] args, int index) throws DemoException.Usage {
        if (index >= args.length) {
            throw new DemoException.Usage("A value is missing after " + args[index - 1]);
        }
        return args[index];
    }

    private static Path path(String name) throws DemoException.Usage {
        try {
            return Path.of(name);
        } catch (InvalidPathException e) {
            throw new DemoException.Usage("Not a file name under this process's locale: " + name);
        }
    }

    private static Filter parseFilter(String filter) throws DemoException.Usage {
        int equals = filter.indexOf('=');
        Long type = equals < 0 ? null : FILTER_TYPES.get(filter.substring(0, equals));
        if (type == null) {
            throw new DemoException.Usage("Not a filter: " + filter);
        }
        return new Filter(type, filter.substring(equals + 1));
    }
}
