package vex.jni;

/** Signs text with the client toolkit. */
public class TAVClientJNI {
    public native long Initialize(String bstrAlgType, String bstrAuxParam);

    public native long SetDigestAlg(long handle, String bstrDigestAlg);

    public native long SetChooseSingleCert(long handle, int isChoose);

    public native long AddFilter(long handle, long ulType, String bstrValue);

    public native long ClearFilter(long handle);

    public native String P1Sign(long handle, String bstrValueBase64);

    public native String P1SignString(long handle, String bstrValue);

    public native String P7Sign(long handle, String bstrValue, long bDetach, long bIncludeCert);

    public native String P7SignString(long handle, String bstrValue, long bDetach, long bIncludeCert);

    public native long Finalize(long handle);

    public native String GetSignVersion(long handle);

    public native String GetSignCert(long handle);

    public native long GetLastError(long handle);

    public native String GetLastErrorMessage(long handle);

    public native String GetCertList(long handle);
}
